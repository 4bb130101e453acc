// The sentences of the header that need a system in an odd state: limits, other entries in the
// place of the file, what an earlier run left, a thread that is cancelled.

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include <gtest/gtest.h>
#include <ovra/extra/RecentLinesLogHandler.h>
#include <ovra/extra/SwitchLogHandler.h>
#include <tests/fs/Allocations.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Bounded.h>

#include <tests/extra/FileCalls.h>
#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

using fs::test::Allocations;
using fs::test::WorkingDirectory;
using test::FileCall;
using test::FileCalls;

class RotatingFileContractTest : public test::BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

// The status of a child that does `work`.
template <typename Work>
int statusOfChild(Work work) {
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        work();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

// --- making and destroying

// The first allocation fails, then the second and so on, until none does.
template <typename Make>
int failuresOf(Make make) {
    for (int failures = 0;; ++failures) {
        Allocations allocations;
        allocations.failAfter(failures);
        try {
            make();
            return failures;
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(allocations.living(), 0) << failures;
        }
    }
}

TEST_F(RotatingFileContractTest, NothingHasChangedWhereMemoryIsShort) {
    if (test::SANITIZED) {
        GTEST_SKIP() << "The sanitizer has its own heap.";
    }
    fs::FilePath const file(path);
    std::unique_ptr<RotatingFileLogHandler> sink;
    int const failures = failuresOf([&] {
        EXPECT_FALSE(exists(path));
        sink = std::make_unique<RotatingFileLogHandler>(file);
    });
    EXPECT_GT(failures, 2);
    EXPECT_TRUE(exists(path));
    EXPECT_GT(failuresOf([] { RecentLinesLogHandler(2); }), 1);
    EXPECT_GT(failuresOf([] { SwitchLogHandler(nullptr); }), 0);
}

TEST_F(RotatingFileContractTest, KeepsErrnoWhenItIsMadeAndDestroyed) {
    for (std::string const& name : {path, directory.path("none/x"), directory.path()}) {
        errno = EXDEV;
        auto sink = std::make_unique<RotatingFileLogHandler>(name, plain());
        EXPECT_EQ(errno, EXDEV) << name;
        sink.reset();
        EXPECT_EQ(errno, EXDEV) << name;
    }
}

TEST_F(RotatingFileContractTest, KeepsErrnoWhateverFreesItsMemory) {
    if (test::SANITIZED) {
        GTEST_SKIP() << "The sanitizer has its own heap.";
    }
    std::optional<RotatingFileLogHandler> sink(std::in_place, path, plain());
    std::optional<RecentLinesLogHandler> ring(std::in_place, 2);
    std::optional<SwitchLogHandler> switched(std::in_place);
    Allocations allocations;
    allocations.changeErrno();
    errno = EXDEV;
    sink.reset();
    EXPECT_EQ(errno, EXDEV);
    ring.reset();
    EXPECT_EQ(errno, EXDEV);
    switched.reset();
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(RotatingFileContractTest, DestructionWaitsForNoDisk) {
    auto sink = std::make_unique<RotatingFileLogHandler>(path, plain());
    put(*sink, "a line");
    FileCalls const calls;
    sink.reset();
    EXPECT_TRUE(calls.made.empty());
    EXPECT_EQ(contentOf(path), "a line\n");
}

// --- lines

TEST_F(RotatingFileContractTest, WritesLinesOfEveryLevelAsTheyAre) {
    RotatingFileLogHandler sink(path, plain());
    std::string expected;
    for (int level = -2; level <= 8; ++level) {
        put(sink, "level " + std::to_string(level), static_cast<log::LogLevel>(level));
        expected += "level " + std::to_string(level) + "\n";
    }
    put(sink, "100 %s\nin two\x01\xff");
    EXPECT_EQ(contentOf(path), expected + "100 %s\nin two\x01\xff\n");
}

TEST_F(RotatingFileContractTest, CountsTheBytesOfAFileOfManyGigabytes) {
    constexpr std::uint64_t SIZE = std::uint64_t{5} << 30;  // All zeros, and no newline.
    writeFile(path, "");
    std::filesystem::resize_file(path, SIZE);
    RotatingFileLogHandler sink(path, plain(SIZE + 8));
    put(sink, "line 1");  // And the newline of the torn line.
    EXPECT_FALSE(exists(path + ".1"));
    put(sink, "line 2");
    EXPECT_EQ(std::filesystem::file_size(path + ".1"), SIZE + 8);
    EXPECT_EQ(contentOf(path), "line 2\n");
}

TEST_F(RotatingFileContractTest, LosesLinesToALimitOnTheSizeOfFiles) {
    for (bool const isIgnored : {true, false}) {
        std::filesystem::remove(path);
        int const status = statusOfChild([&] {
            signal(SIGXFSZ, isIgnored ? SIG_IGN : SIG_DFL);
            RotatingFileLogHandler sink(path, plain());
            rlimit limit = {};
            getrlimit(RLIMIT_FSIZE, &limit);
            rlimit const low = {10, limit.rlim_max};
            setrlimit(RLIMIT_FSIZE, &low);
            put(sink, "first");
            put(sink, "second");
            EXPECT_EQ(sink.lostLines(), 1u);
            setrlimit(RLIMIT_FSIZE, &limit);
            put(sink, "third");
        });
        if (isIgnored) {
            EXPECT_EQ(status, 0);
            EXPECT_EQ(contentOf(path), "first\nseco\n[ovra:WARNING] 1 lines lost\nthird\n");
        } else {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
        }
    }
}

TEST_F(RotatingFileContractTest, StampsTheTimeInAnyCenturyAndFollowsAClockThatIsSet) {
    RotatingFileLogHandler sink{fs::FilePath(path)};
    std::vector<std::string> expected;
    for (auto const& [seconds, stamp] : {std::pair{std::int64_t{0}, "1970-01-01T00:00:00."},
                                         {4102444799, "2099-12-31T23:59:59."},
                                         {4102444800, "2100-01-01T00:00:00."},
                                         {2147483648, "2038-01-19T03:14:08."},
                                         {4294967296, "2106-02-07T06:28:16."},
                                         {253402300799, "9999-12-31T23:59:59."},
                                         {951782400, "2000-02-29T00:00:00."}}) {
        FileCalls calls;
        calls.seconds = seconds;
        put(sink, "a line");
        expected.emplace_back(stamp);
    }
    std::vector<std::string> stamps;
    for (std::string const& line : linesOf(contentOf(path))) {
        EXPECT_EQ(withoutStamp(line), "a line");
        stamps.push_back(line.substr(0, 20));
    }
    EXPECT_EQ(stamps, expected);
}

// Two sinks find the same torn line as they open the file. One of them ends it.
TEST_F(RotatingFileContractTest, EndsATornLineOnlyOnce) {
    writeFile(path, "torn");
    RotatingFileLogHandler sink(path, plain());
    RotatingFileLogHandler other(path, plain());
    put(other, "first");
    put(sink, "second");
    EXPECT_EQ(contentOf(path), "torn\nfirst\nsecond\n");
}

// Somebody else appends bytes without a newline, for ever.
TEST_F(RotatingFileContractTest, WaitsForNoLineThatNeverEnds) {
    RotatingFileLogHandler sink(path, plain(1 << 20));
    std::ofstream(path, std::ios::app) << "x";
    FileCalls calls;
    calls.onCall = [&](FileCall call) {
        if (call == FileCall::TOUCH && calls.count(call) < 1000) {
            std::ofstream(path, std::ios::app) << "x";
        }
        return 0;
    };
    put(sink, "a line");
    EXPECT_LT(calls.count(FileCall::TOUCH), 1000);
}

// --- what the path names

TEST_F(RotatingFileContractTest, ResolvesARelativePathWhenItOpensIt) {
    std::filesystem::create_directory(directory.path("later"));
    WorkingDirectory const before(directory.path());
    RotatingFileLogHandler sink(std::string("x"), plain(10));
    put(sink, "line 1");
    WorkingDirectory const after(directory.path("later"));
    put(sink, "2");
    EXPECT_EQ(contentOf(path), "line 1\n2\n");
    put(sink, "line 3");  // No longer fits.
    EXPECT_EQ(contentOf(path), "line 1\n2\n");
    EXPECT_EQ(contentOf(directory.path("later/x")), "line 3\n");
}

TEST_F(RotatingFileContractTest, GoesOnInTheOpenFileWhileSomethingElseHasItsName) {
    std::string const away = directory.path("away");
    for (bool const isCapped : {false, true}) {
        for (bool const isDirectory : {false, true}) {
            std::filesystem::remove(path);
            RotatingFileLogHandler sink(path, plain(isCapped ? 10 : 0));
            put(sink, "line 1");
            std::filesystem::rename(path, away);
            ASSERT_EQ((isDirectory ? mkdir : mkfifo)(path.c_str(), 0700), 0);
            EXPECT_FALSE(sink.reopen());
            sink.requestReopen();
            put(sink, "line 2");
            put(sink, "line 3");
            EXPECT_EQ(contentOf(away), "line 1\nline 2\nline 3\n");
            EXPECT_EQ(sink.lostLines(), 0u);
            std::filesystem::remove(path);
            put(sink, "line 4");
            EXPECT_EQ(contentOf(path), "line 4\n");
            std::filesystem::remove(path + ".1");
        }
    }
}

TEST_F(RotatingFileContractTest, LosesLinesToADirectoryThatIsMadeAfterTheSink) {
    std::string const late = directory.path("none/late");
    RotatingFileLogHandler sink(late, plain());
    std::filesystem::create_directories(late);
    put(sink, "a line");
    EXPECT_EQ(sink.lostLines(), 1u);
    EXPECT_FALSE(exists(late + "/ovra.log"));
}

// The sink may not read the file, and so opens it for writing only: a pipe would wait for a reader.
TEST_F(RotatingFileContractTest, WaitsForNoPipeThatTakesTheNameWhileItIsOpened) {
    FileCalls calls;
    calls.onCall = [&](FileCall call) {
        if (call != FileCall::OPEN || calls.count(call) > 1) {
            return 0;
        }
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        return EACCES;
    };
    RotatingFileLogHandler sink(path, plain());
    EXPECT_EQ(calls.count(FileCall::OPEN), 2);
    put(sink, "a line");
    EXPECT_EQ(sink.lostLines(), 1u);
}

// It would send this process the signals of whoever types there.
TEST_F(RotatingFileContractTest, ATerminalThatTakesTheNameWhileItIsOpenedDoesNotBecomeItsOwn) {
    // A device is named: see ../support/Contained.h.
    fs::test::OrdinaryUser const user(directory.path());
    int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        GTEST_SKIP() << "no terminals here";
    }
    std::string const terminal = ptsname(master);
    EXPECT_EQ(statusOfChild([&] {
                  setsid();  // A new session, without a terminal.
                  FileCalls calls;
                  calls.onCall = [&](FileCall call) {
                      if (call == FileCall::OPEN && calls.count(call) == 1) {
                          EXPECT_EQ(symlink(terminal.c_str(), path.c_str()), 0);
                      }
                      return 0;
                  };
                  RotatingFileLogHandler sink(path, plain());
                  EXPECT_TRUE(exists(path));
                  put(sink, "a line");
                  EXPECT_EQ(sink.lostLines(), 1u);
                  EXPECT_EQ(open("/dev/tty", O_RDWR | O_CLOEXEC), -1);
              }),
              0);
    close(master);
}

// --- older files

TEST_F(RotatingFileContractTest, UsesTheNameAfterTheOldestAndLosesWhatHasIt) {
    auto const prepare = [&](std::vector<std::string> const& suffixes) {
        for (std::string const& file : filesOf(path)) {
            std::filesystem::remove(file);
        }
        for (std::string const& suffix : suffixes) {
            writeFile(path + suffix, "of x" + suffix + "\n");
        }
    };
    auto const expectFiles = [&](std::vector<std::pair<std::string, std::string>> const& files) {
        EXPECT_EQ(filesOf(path).size(), files.size());
        for (auto const& [suffix, content] : files) {
            EXPECT_EQ(contentOf(path + suffix), content) << suffix;
        }
    };
    prepare({"", ".1", ".2", ".3"});
    {
        RotatingFileLogHandler sink(path, plain(8, 2));
        put(sink, "line 1");
        expectFiles({{"", "line 1\n"}, {".1", "of x\n"}, {".2", "of x.1\n"}});
    }
    // The oldest cannot be removed, until the next move.
    prepare({"", ".1", ".2"});
    {
        RotatingFileLogHandler sink(path, plain(8, 2));
        {
            FileCalls calls;
            calls.onCall = [](FileCall call) { return call == FileCall::UNLINK ? EACCES : 0; };
            put(sink, "line 1");
        }
        expectFiles({{"", "line 1\n"}, {".1", "of x\n"}, {".2", "of x.1\n"}, {".3", "of x.2\n"}});
        put(sink, "line 2");
        expectFiles({{"", "line 2\n"}, {".1", "line 1\n"}, {".2", "of x\n"}});
    }
    // A process was killed after it had moved "x.2" to "x.3". The gap is filled first.
    prepare({"", ".1", ".3"});
    RotatingFileLogHandler sink(path, plain(8, 2));
    put(sink, "line 1");
    expectFiles({{"", "line 1\n"}, {".1", "of x\n"}, {".2", "of x.1\n"}, {".3", "of x.3\n"}});
    put(sink, "line 2");
    expectFiles({{"", "line 2\n"}, {".1", "line 1\n"}, {".2", "of x\n"}});
}

TEST_F(RotatingFileContractTest, OverwritesNoOlderFileThatCannotBeLookedUp) {
    for (int const failing : {1, 2, 3}) {
        for (char const* suffix : {"", ".1", ".2", ".3"}) {
            writeFile(path + suffix, std::string("of x") + suffix + "\n");
        }
        RotatingFileLogHandler sink(path, plain(8, 4));
        FileCalls calls;
        calls.onCall = [&](FileCall call) {
            return call == FileCall::LSTAT && calls.count(call) == failing ? EIO : 0;
        };
        put(sink, "a line");
        EXPECT_EQ(contentOf(path), "of x\na line\n");
        for (char const* suffix : {".1", ".2", ".3"}) {
            EXPECT_EQ(contentOf(path + suffix), std::string("of x") + suffix + "\n") << failing;
        }
    }
}

TEST_F(RotatingFileContractTest, GoesOnInAFileWhoseNameIsTooLongToBeMoved) {
    std::string const longest = directory.path(std::string(255, 'x'));
    unsigned int const all = std::numeric_limits<unsigned int>::max();
    RotatingFileLogHandler sink(longest, plain(8, all));
    put(sink, "line 1");
    put(sink, "line 2");
    EXPECT_EQ(contentOf(longest), "line 1\nline 2\n");
    EXPECT_EQ(sink.lostLines(), 0u);
}

// --- a thread that is cancelled

// At each call of the system in turn, while it moves the file.
TEST_F(RotatingFileContractTest, AThreadThatIsCancelledDuringALineEndsAlone) {
    static RotatingFileLogHandler* sink = nullptr;
    static std::size_t cancelledAt = 0;
    static bool isCancelled = false;
    auto const work = [](void*) -> void* {
        FileCalls calls;
        calls.onCall = [&](FileCall) {
            if (calls.made.size() == cancelledAt) {
                isCancelled = true;
                pthread_cancel(pthread_self());
            }
            return 0;
        };
        put(*sink, "line 2");
        pthread_testcancel();
        return nullptr;
    };
    constexpr int NO_SUCH_CALL = 3;
    int status = 0;
    for (cancelledAt = 1; status == 0; ++cancelledAt) {
        for (std::string const& file : filesOf(path)) {
            std::filesystem::remove(file);
        }
        status = statusOfChild([&] {
            RotatingFileLogHandler own(path, plain(8));
            put(own, "line 1");
            sink = &own;
            pthread_t thread;
            ASSERT_EQ(pthread_create(&thread, nullptr, work, nullptr), 0);
            void* result = nullptr;
            ASSERT_EQ(pthread_join(thread, &result), 0);
            if (!isCancelled) {
                _exit(NO_SUCH_CALL);
            }
            EXPECT_EQ(result, PTHREAD_CANCELED);
            put(own, "line 3");
            EXPECT_EQ(own.lostLines(), 0u);
            EXPECT_EQ(allLinesOf(path).back(), "line 3");
        });
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == NO_SUCH_CALL)
        << "call " << cancelledAt - 1 << ", status " << status;
    EXPECT_GT(cancelledAt, 10u);
}

}  // namespace
}  // namespace ovra::extra
