#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Bounded.h>

#include <tests/extra/FileCalls.h>
#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RotatingFileLogHandlerTest : public test::BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

class UmaskKeeper {
public:
    explicit UmaskKeeper(mode_t mask) : before(umask(mask)) {}
    UmaskKeeper(UmaskKeeper const&) = delete;
    UmaskKeeper& operator=(UmaskKeeper const&) = delete;
    ~UmaskKeeper() { umask(before); }

private:
    mode_t const before;
};

mode_t modeOf(std::string const& file) {
    struct stat status = {};
    stat(file.c_str(), &status);
    return status.st_mode & 07777;
}

// --- the file

TEST_F(RotatingFileLogHandlerTest, AppendsToWhatAnEarlierRunLeft) {
    writeFile(path, "earlier\n");
    RotatingFileLogHandler sink(path, plain());
    put(sink, "first");
    put(sink, "");
    put(sink, "third");
    EXPECT_EQ(contentOf(path), "earlier\nfirst\n\nthird\n");
    EXPECT_EQ(sink.lostLines(), 0u);
}

TEST_F(RotatingFileLogHandlerTest, EndsATornLineOfAnEarlierRun) {
    writeFile(path, "torn of");
    RotatingFileLogHandler sink(path, plain());
    put(sink, "first");
    put(sink, "second");
    EXPECT_EQ(contentOf(path), "torn of\nfirst\nsecond\n");
}

TEST_F(RotatingFileLogHandlerTest, MakesTheFileWithTheModeThatTheUmaskLeaves) {
    for (mode_t const mask : {0022u, 0077u, 0000u, 0777u}) {
        UmaskKeeper const keeper(mask);
        RotatingFileLogHandler const sink(path + std::to_string(mask), plain());
        EXPECT_EQ(modeOf(path + std::to_string(mask)), 0640u & ~mask) << std::oct << mask;
    }
}

TEST_F(RotatingFileLogHandlerTest, ClosesTheFileOnExecAndWithTheSink) {
    std::size_t const before =
        static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                               std::filesystem::directory_iterator()));
    {
        RotatingFileLogHandler sink(path, plain(10, 3));
        for (int line = 0; line < 20; ++line) {
            put(sink, "a line");
        }
        bool isFound = false;
        for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry.path(), gone) == path) {
                isFound = true;
                int const descriptor = std::stoi(entry.path().filename());
                EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
                EXPECT_NE(fcntl(descriptor, F_GETFL) & O_APPEND, 0);
            }
        }
        EXPECT_TRUE(isFound);
    }
    std::size_t const after =
        static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                               std::filesystem::directory_iterator()));
    EXPECT_EQ(after, before);
}

TEST_F(RotatingFileLogHandlerTest, WritesIntoADirectoryUnderItsOwnName) {
    for (std::string const& name : {directory.path(), directory.path() + "/"}) {
        RotatingFileLogHandler sink(name, plain());
        put(sink, "a line");
    }
    EXPECT_EQ(contentOf(directory.path("ovra.log")), "a line\na line\n");
}

TEST_F(RotatingFileLogHandlerTest, AddsToTheTargetOfALinkAndMovesThatTarget) {
    std::filesystem::create_directory(directory.path("volume"));
    for (bool const isDangling : {false, true}) {
        std::string const target = directory.path(isDangling ? "volume/new" : "volume/old");
        if (!isDangling) {
            writeFile(target, "earlier\n");
        }
        std::filesystem::remove(path);
        std::filesystem::create_symlink(target, path);
        RotatingFileLogHandler sink(path, plain(10));
        put(sink, "a line");
        put(sink, "another");
        EXPECT_EQ(contentOf(target + ".1"), "a line\n");
        EXPECT_EQ(contentOf(target), "another\n");
        EXPECT_TRUE(std::filesystem::is_symlink(path));
        EXPECT_FALSE(exists(path + ".1"));
    }
}

// As where the disk is mounted only later.
TEST_F(RotatingFileLogHandlerTest, FollowsALinkWhoseTargetCannotBeMadeYet) {
    std::filesystem::create_directory(directory.path("links"));
    std::string const volume = directory.path("volume");
    std::filesystem::create_symlink(volume + "/x", directory.path("links/inner"));
    std::filesystem::create_symlink("links/inner", path);
    RotatingFileLogHandler sink(path, plain(10));
    put(sink, "lost");
    std::filesystem::create_directory(volume);
    put(sink, "later");  // After the line that reports the loss, each in a file of its own.
    put(sink, "a line");
    EXPECT_EQ(contentOf(volume + "/x"), "a line\n");
    EXPECT_EQ(contentOf(volume + "/x.1"), "later\n");
    EXPECT_TRUE(std::filesystem::is_symlink(path));
    EXPECT_FALSE(exists(path + ".1"));
    EXPECT_FALSE(exists(directory.path("links/inner.1")));
    EXPECT_EQ(sink.lostLines(), 1u);
}

TEST_F(RotatingFileLogHandlerTest, LosesLinesToALinkThatLeadsInACircle) {
    std::filesystem::create_symlink("x", path);
    RotatingFileLogHandler sink(path, plain());
    put(sink, "a line");
    EXPECT_EQ(sink.lostLines(), 1u);
}

TEST_F(RotatingFileLogHandlerTest, RefusesWhatIsNoRegularFileWithoutBlocking) {
    std::string const pipe = directory.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::string const socketPath = directory.path("socket");
    int const listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(listener);
    std::string const zero("x\0y", 3);
    // Devices are named: see ../support/Contained.h.
    fs::test::OrdinaryUser const user(directory.path());
    for (std::string const& name :
         {pipe, socketPath, std::string("/dev/null"), std::string("/dev/full"), std::string(),
          directory.path("none/x"), directory.path("none/"), directory.path(zero)}) {
        test::FileCalls calls;
        RotatingFileLogHandler sink(name, plain());
        put(sink, "a line");
        put(sink, "another");
        EXPECT_EQ(sink.lostLines(), 2u) << name;
        EXPECT_FALSE(sink.reopen()) << name;
        EXPECT_FALSE(sink.sync()) << name;
        EXPECT_EQ(calls.count(test::FileCall::WRITE), 0) << name;
        // To open a device may set it going, and to open a pipe lets its other end go on.
        bool const isThere = name != "" && exists(name) && name.find('\0') == std::string::npos;
        EXPECT_TRUE(!isThere || calls.count(test::FileCall::OPEN) == 0) << name;
    }
    EXPECT_FALSE(exists(path));
}

TEST_F(RotatingFileLogHandlerTest, TriesAgainWithEachLineUntilThereIsAFile) {
    std::string const late = directory.path("late/x");
    RotatingFileLogHandler sink(late, plain());
    put(sink, "first");
    put(sink, "second");
    std::filesystem::create_directory(directory.path("late"));
    put(sink, "third");
    put(sink, "fourth");
    EXPECT_EQ(contentOf(late), "[ovra:WARNING] 2 lines lost\nthird\nfourth\n");
    EXPECT_EQ(sink.lostLines(), 2u);
}

TEST_F(RotatingFileLogHandlerTest, IgnoresNullLinesAndKeepsErrno) {
    RotatingFileLogHandler sink(path, plain(1));
    RotatingFileLogHandler lost(directory.path("none/x"), plain(1));
    test::FileCalls const calls;  // Syncs nothing in earnest.
    for (RotatingFileLogHandler* each : {&sink, &lost}) {
        errno = EXDEV;
        each->handleLogMessage(nullptr, log::INFO);
        EXPECT_EQ(each->lostLines(), 0u);
        put(*each, "a line");
        put(*each, "another");
        each->reopen();
        each->requestReopen();
        each->sync();
        EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_EQ(contentOf(path), "another\n");
}

TEST_F(RotatingFileLogHandlerTest, WritesLinesOfAnyLengthWithOneCall) {
    RotatingFileLogHandler sink(path, plain());
    std::string expected;
    for (std::size_t const length : {0u, 1u, 998u, 1022u, 1023u, 1024u, 1025u, 70000u}) {
        std::string const line(length, 'x');
        test::FileCalls calls;
        put(sink, line);
        EXPECT_THAT(calls.made, ElementsAre(test::FileCall::WRITE)) << length;
        expected += line + "\n";
    }
    EXPECT_EQ(contentOf(path), expected);
}

TEST_F(RotatingFileLogHandlerTest, AllocatesNothingForALine) {
    if (!test::countsAllocations()) {
        GTEST_SKIP() << "The heap is not the test's own.";
    }
    for (std::uint64_t const maxBytes : {0u, 300u, 1000000u}) {
        RotatingFileOptions options;
        options.maxBytes = maxBytes;
        RotatingFileLogHandler sink(path, options);
        std::string const longLine(5000, 'x');
        put(sink, "a line");
        long const before = test::allocations();
        for (int line = 0; line < 100; ++line) {
            sink.handleLogMessage("a line", log::INFO);
            sink.handleLogMessage(longLine.c_str(), log::INFO);
        }
        EXPECT_EQ(test::allocations(), before);
    }
}

// --- the time

TEST_F(RotatingFileLogHandlerTest, StampsEachLineWithTheTimeInUtc) {
    ASSERT_EQ(setenv("TZ", "Asia/Kathmandu", 1), 0);
    // Not by `time`, which may lag behind the clock.
    auto const secondsNow = [] {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        std::tm parts = {};
        gmtime_r(&now.tv_sec, &parts);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
        return std::string(text);
    };
    std::string const before = secondsNow();
    RotatingFileLogHandler sink{fs::FilePath(path)};
    put(sink, "a line");
    put(sink, "another");
    std::string const after = secondsNow();
    unsetenv("TZ");
    std::string last = before;
    std::vector<std::string> messages;
    for (std::string const& line : linesOf(contentOf(path))) {
        messages.push_back(withoutStamp(line));
        std::string const seconds = line.substr(0, before.size());
        EXPECT_LE(last, seconds);
        EXPECT_LE(seconds, after);
        last = seconds;
    }
    EXPECT_THAT(messages, ElementsAre("a line", "another"));
}

// --- the cap

TEST_F(RotatingFileLogHandlerTest, KeepsToItsSizeAndToItsGenerations) {
    RotatingFileLogHandler sink(path, plain(12, 3));
    for (int line = 1; line <= 9; ++line) {
        put(sink, "line " + std::to_string(line));  // Seven bytes with the newline.
    }
    EXPECT_EQ(contentOf(path), "line 9\n");
    EXPECT_EQ(contentOf(path + ".1"), "line 8\n");
    EXPECT_EQ(contentOf(path + ".2"), "line 7\n");
    EXPECT_EQ(contentOf(path + ".3"), "line 6\n");
    EXPECT_FALSE(exists(path + ".4"));
}

TEST_F(RotatingFileLogHandlerTest, MovesTheFileForTheFirstByteTooMany) {
    RotatingFileLogHandler sink(path, plain(14));
    put(sink, "line 1");
    put(sink, "line 2");
    EXPECT_FALSE(exists(path + ".1"));
    put(sink, "");
    EXPECT_EQ(contentOf(path + ".1"), "line 1\nline 2\n");
    EXPECT_EQ(contentOf(path), "\n");
}

TEST_F(RotatingFileLogHandlerTest, CountsTheTimeAndTheEndOfATornLineAsBytes) {
    for (std::uint64_t const maxBytes : {14u, 13u}) {
        writeFile(path, "torn");
        RotatingFileLogHandler sink(path, plain(maxBytes));
        put(sink, "12345678");  // 4 + 1 + 9
        EXPECT_EQ(contentOf(path), maxBytes == 14 ? "torn\n12345678\n" : "12345678\n");
    }
    EXPECT_EQ(contentOf(path + ".1"), "torn");
    std::filesystem::remove(path);
    RotatingFileOptions options = plain();
    options.stampTimes = true;
    options.maxBytes = 2 * (25 + 7);
    RotatingFileLogHandler sink(path, options);
    put(sink, "line 1");
    put(sink, "line 2");
    EXPECT_EQ(linesOf(contentOf(path)).size(), 2u);
    put(sink, "line 3");
    EXPECT_EQ(linesOf(contentOf(path)).size(), 1u);
}

TEST_F(RotatingFileLogHandlerTest, CountsTheBytesOfAnEarlierRun) {
    writeFile(path, "0123456789\n");
    RotatingFileLogHandler sink(path, plain(12));
    put(sink, "a line");
    EXPECT_EQ(contentOf(path + ".1"), "0123456789\n");
    EXPECT_EQ(contentOf(path), "a line\n");
}

TEST_F(RotatingFileLogHandlerTest, PutsALongerLineOutAlone) {
    std::string const longLine(50, 'x');
    RotatingFileLogHandler sink(path, plain(20, 5));
    put(sink, longLine);  // Into the empty file, which is not moved.
    EXPECT_FALSE(exists(path + ".1"));
    put(sink, "a");
    put(sink, longLine);
    put(sink, "b");
    EXPECT_EQ(contentOf(path), "b\n");
    EXPECT_EQ(contentOf(path + ".1"), longLine + "\n");
    EXPECT_EQ(contentOf(path + ".2"), "a\n");
    EXPECT_EQ(contentOf(path + ".3"), longLine + "\n");
    EXPECT_FALSE(exists(path + ".4"));
}

TEST_F(RotatingFileLogHandlerTest, RemovesTheFullFileIfNoneAreKept) {
    RotatingFileLogHandler sink(path, plain(12, 0));
    put(sink, "line 1");
    put(sink, "line 2");
    EXPECT_EQ(contentOf(path), "line 2\n");
    EXPECT_THAT(filesOf(path), ElementsAre(path));
}

TEST_F(RotatingFileLogHandlerTest, FillsAGapAndLeavesTheFilesAboveIt) {
    writeFile(path + ".1", "one\n");
    writeFile(path + ".3", "three\n");
    RotatingFileLogHandler sink(path, plain(8, 1000000000));
    put(sink, "line 1");
    put(sink, "line 2");
    EXPECT_EQ(contentOf(path + ".1"), "line 1\n");
    EXPECT_EQ(contentOf(path + ".2"), "one\n");
    EXPECT_EQ(contentOf(path + ".3"), "three\n");
    EXPECT_FALSE(exists(path + ".4"));
}

TEST_F(RotatingFileLogHandlerTest, NoticesWithinATickThatAnotherProgramEmptiedTheFile) {
    RotatingFileLogHandler sink(path, plain(1000));
    put(sink, std::string(990, 'x'));
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    put(sink, "a line that no longer fits into what the sink knows");
    EXPECT_FALSE(exists(path + ".1"));
    EXPECT_EQ(contentOf(path), "a line that no longer fits into what the sink knows\n");
}

TEST_F(RotatingFileLogHandlerTest, MakesARemovedFileAgainWhenItLooks) {
    RotatingFileLogHandler sink(path, plain(100));
    put(sink, "before");
    std::filesystem::remove(path);
    // More than a quarter of what was left: looked at before, whatever the clock says.
    put(sink, std::string(60, 'x'));
    EXPECT_EQ(contentOf(path), std::string(60, 'x') + "\n");
}

// --- reopening

TEST_F(RotatingFileLogHandlerTest, FollowsARenameOnRequestOnly) {
    RotatingFileLogHandler sink(path, plain());
    put(sink, "first");
    std::filesystem::rename(path, path + ".old");
    put(sink, "second");
    EXPECT_FALSE(exists(path));
    EXPECT_TRUE(sink.reopen());
    put(sink, "third");
    EXPECT_EQ(contentOf(path + ".old"), "first\nsecond\n");
    EXPECT_EQ(contentOf(path), "third\n");

    std::filesystem::rename(path, path + ".old");
    sink.requestReopen();
    EXPECT_FALSE(exists(path));
    put(sink, "fourth");
    put(sink, "fifth");
    EXPECT_EQ(contentOf(path + ".old"), "third\n");
    EXPECT_EQ(contentOf(path), "fourth\nfifth\n");
}

TEST_F(RotatingFileLogHandlerTest, KeepsTheOpenFileWhereReopeningFails) {
    std::filesystem::create_directory(directory.path("in"));
    std::string const inner = directory.path("in/x");
    RotatingFileLogHandler sink(inner, plain());
    std::filesystem::rename(directory.path("in"), directory.path("away"));
    EXPECT_FALSE(sink.reopen());
    sink.requestReopen();
    put(sink, "first");
    EXPECT_EQ(contentOf(directory.path("away/x")), "first\n");
    EXPECT_EQ(sink.lostLines(), 0u);
    std::filesystem::create_directory(directory.path("in"));
    put(sink, "second");  // The request still stands.
    EXPECT_EQ(contentOf(inner), "second\n");
}

TEST_F(RotatingFileLogHandlerTest, OpensThePathOncePerRequest) {
    RotatingFileLogHandler sink(path, plain());
    sink.requestReopen();
    sink.requestReopen();
    test::FileCalls calls;
    put(sink, "first");
    EXPECT_EQ(calls.count(test::FileCall::OPEN), 1);
    put(sink, "second");
    EXPECT_EQ(calls.count(test::FileCall::OPEN), 1);
}

// --- on the disk

TEST_F(RotatingFileLogHandlerTest, SyncsLinesThatAreSevereEnough) {
    struct Row {
        log::LogLevel syncLevel;
        std::vector<int> synced;
    };
    Row const rows[] = {{log::DISABLED, {}},
                        {log::CRITICAL, {-1, 0, 1}},
                        {log::WARNING, {-1, 0, 1, 2, 3}},
                        {log::VERBOSE, {-1, 0, 1, 2, 3, 4, 5, 6}}};
    for (Row const& row : rows) {
        RotatingFileOptions options = plain();
        options.syncLevel = row.syncLevel;
        RotatingFileLogHandler sink(path, options);
        ASSERT_TRUE(sink.sync());  // The name of the file, too.
        std::vector<int> synced;
        for (int level = -1; level <= 7; ++level) {
            test::FileCalls calls;
            put(sink, "a line", static_cast<log::LogLevel>(level));
            EXPECT_EQ(calls.made.front(), test::FileCall::WRITE);
            if (calls.count(test::FileCall::SYNC) == 1) {
                synced.push_back(level);
            }
        }
        EXPECT_EQ(synced, row.synced);
    }
}

TEST_F(RotatingFileLogHandlerTest, SyncsTheNameOfANewFileOnce) {
    RotatingFileOptions options = plain(20);
    options.syncLevel = log::ERROR;
    RotatingFileLogHandler sink(path, options);
    std::vector<int> syncs;
    for (int line = 0; line < 4; ++line) {
        test::FileCalls calls;
        put(sink, "a line of", log::ERROR);  // Ten bytes: the third moves the file.
        syncs.push_back(calls.count(test::FileCall::SYNC));
    }
    EXPECT_THAT(syncs, ElementsAre(2, 1, 2, 1));
}

TEST_F(RotatingFileLogHandlerTest, SyncsTheFilesThatItHasLeftOnce) {
    std::filesystem::create_directory(directory.path("in"));
    RotatingFileLogHandler sink(directory.path("in/x"), plain(10, 5));
    std::vector<int> wholesale;
    auto const sync = [&] {
        test::FileCalls calls;
        EXPECT_TRUE(sink.sync());
        wholesale.push_back(calls.count(test::FileCall::SYNC_ALL));
    };
    put(sink, "first");
    sync();
    put(sink, "second");
    put(sink, "third");
    sync();
    sync();
    sink.reopen();
    sync();
    // Moved by another.
    std::filesystem::rename(directory.path("in/x"), directory.path("in/moved"));
    put(sink, "fourth");
    sync();
    EXPECT_THAT(wholesale, ElementsAre(0, 1, 0, 1, 1));
}

}  // namespace
}  // namespace ovra::extra
