// Several threads, several processes, and processes that end at any moment.

#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <ostream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

#include <tests/extra/FileCalls.h>
#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

using test::FileCall;
using test::FileCalls;

constexpr unsigned int KEPT = 99;  // No line is dropped.

class RotatingFileProcessTest : public test::BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

// The child's status is 0 if `work` returns.
template <typename Work>
pid_t forked(Work work) {
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        work();
        _exit(0);
    }
    return child;
}

void expectSuccess(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

void writeLines(log::LogHandler& sink, int process, int threads, int lines) {
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
        writers.emplace_back([&sink, process, thread, lines] {
            for (int line = 0; line < lines; ++line) {
                put(sink, "process " + std::to_string(process) + " thread " +
                              std::to_string(thread) + " line " + std::to_string(line) + ".");
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

// Every line of every thread, whole, once and in that thread's order.
void expectAllLines(std::vector<std::string> const& lines, int processes, int threads, int each) {
    std::map<std::pair<int, int>, int> next;
    for (std::string const& line : lines) {
        int process = 0;
        int thread = 0;
        int number = 0;
        int end = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "process %d thread %d line %d.%n", &process, &thread,
                              &number, &end),
                  3)
            << line;
        ASSERT_EQ(end, static_cast<int>(line.size())) << line;
        int& expected = next[{process, thread}];
        ASSERT_EQ(number, expected) << line;
        ++expected;
    }
    ASSERT_EQ(next.size(), static_cast<std::size_t>(processes * threads));
    for (auto const& entry : next) {
        EXPECT_EQ(entry.second, each);
    }
}

// --- several at once

struct Sharing {
    char const* name;
    std::uint64_t maxBytes;
    bool isInherited;  // One sink, made before the fork, or one in each process.
};

// Instead of the bytes, some of which have no value.
void PrintTo(Sharing const& sharing, std::ostream* stream) {
    *stream << sharing.name;
}

class SharedFileTest : public RotatingFileProcessTest,
                       public ::testing::WithParamInterface<Sharing> {};

TEST_P(SharedFileTest, EveryLineIsWholeAndInItsThreadsOrder) {
    constexpr int PROCESSES = 2;
    constexpr int THREADS = 4;
    int const lines = std::max(100, test::scaled(1000));  // More than the cap.
    std::uint64_t const maxBytes = GetParam().maxBytes;
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    auto const inherited = std::make_unique<RotatingFileLogHandler>(path, plain(maxBytes, KEPT));
    std::vector<pid_t> children;
    for (int process = 0; process < PROCESSES; ++process) {
        children.push_back(forked([&] {
            char byte = 0;
            close(start[1]);
            [[maybe_unused]] auto const end = read(start[0], &byte, 1);
            RotatingFileLogHandler own(path, plain(maxBytes, KEPT));
            RotatingFileLogHandler& sink = GetParam().isInherited ? *inherited : own;
            writeLines(sink, process, THREADS, lines);
            if (sink.lostLines() != 0) {
                _exit(1);
            }
        }));
    }
    close(start[0]);
    close(start[1]);
    for (pid_t const child : children) {
        expectSuccess(child);
    }
    expectAllLines(allLinesOf(path), PROCESSES, THREADS, lines);
    EXPECT_EQ(exists(path + ".1"), maxBytes > 0);
}

INSTANTIATE_TEST_SUITE_P(Sharing, SharedFileTest,
                         ::testing::Values(Sharing{"Uncapped", 0, false},
                                           Sharing{"UncappedInherited", 0, true},
                                           Sharing{"Capped", 10000, false},
                                           Sharing{"CappedInherited", 10000, true}),
                         [](auto const& test) { return std::string(test.param.name); });

TEST_F(RotatingFileProcessTest, FourThreadsNeverTakeTheFileOverItsCap) {
    int const lines = test::scaled(2000);
    RotatingFileLogHandler sink(path, plain(10000, KEPT));
    writeLines(sink, 0, 4, lines);
    expectAllLines(allLinesOf(path), 1, 4, lines);
    for (std::string const& file : filesOf(path)) {
        EXPECT_LE(std::filesystem::file_size(file), 10000u) << file;
    }
}

TEST_F(RotatingFileProcessTest, NoLineIsLostWhileOtherThreadsReopenAndSync) {
    int const lines = test::scaled(5000);
    RotatingFileLogHandler sink(path, plain());
    std::atomic<bool> isDone{false};
    std::vector<std::thread> others;
    for (bool (RotatingFileLogHandler::*const call)() :
         {&RotatingFileLogHandler::reopen, &RotatingFileLogHandler::sync}) {
        others.emplace_back([&, call] {
            FileCalls const unsynced;  // Waits for no disk.
            while (!isDone) {
                EXPECT_TRUE((sink.*call)());
            }
        });
    }
    writeLines(sink, 0, 2, lines);
    isDone = true;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_EQ(sink.lostLines(), 0u);
    expectAllLines(allLinesOf(path), 1, 2, lines);
}

// No line is long enough to be looked at for its size: what is looked at is the clock.
TEST_F(RotatingFileProcessTest, NoticesAtTheNextTickWhatAnotherWrites) {
    constexpr std::uint64_t CAP = 1 << 30;
    RotatingFileLogHandler sink(path, plain(CAP));
    put(sink, "of this sink");
    std::filesystem::resize_file(path, CAP);  // Another writer has filled the file.
    while (!exists(path + ".1")) {            // 10 ms at most.
        FileCalls calls;
        put(sink, "of this sink");
        bool const hasLooked = calls.count(FileCall::FSTAT) > 0;
        ASSERT_EQ(exists(path + ".1"), hasLooked);
    }
    EXPECT_EQ(contentOf(path), "of this sink\n");
}

// --- signals

RotatingFileLogHandler* signalled = nullptr;

TEST_F(RotatingFileProcessTest, ASignalHandlerAsksForTheFileAtAnyMoment) {
    constexpr unsigned int MOVES = 20;
    int const leastLines = test::scaled(20000);
    RotatingFileLogHandler sink(path, plain());
    signalled = &sink;
    struct sigaction action = {};
    action.sa_handler = [](int) { signalled->requestReopen(); };
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGHUP, &action, &before), 0);
    std::atomic<bool> isMovedEnough{false};
    std::atomic<bool> isDone{false};
    int lines = 0;
    test::Gate mayEnd;
    std::thread writer([&] {
        while (lines < leastLines || !isMovedEnough) {
            put(sink, "process 0 thread 0 line " + std::to_string(lines++) + ".");
        }
        isDone = true;
        mayEnd.wait();
    });
    unsigned int moves = 0;
    while (!isDone) {
        if (moves < MOVES && exists(path)) {
            std::filesystem::rename(path, path + "." + std::to_string(KEPT - moves++));
        }
        isMovedEnough = moves == MOVES;
        pthread_kill(writer.native_handle(), SIGHUP);
        std::this_thread::yield();
    }
    mayEnd.open();
    writer.join();
    sigaction(SIGHUP, &before, nullptr);
    EXPECT_EQ(sink.lostLines(), 0u);
    expectAllLines(allLinesOf(path), 1, 1, lines);
}

// --- fork

TEST_F(RotatingFileProcessTest, AForkedChildLogsWhateverAnotherThreadWasDoing) {
    for (FileCall const held : {FileCall::WRITE, FileCall::FSTAT, FileCall::STAT, FileCall::OPEN,
                                FileCall::LOCK, FileCall::RENAME, FileCall::LSTAT}) {
        for (std::string const& file : filesOf(path)) {
            std::filesystem::remove(file);
        }
        RotatingFileOptions options = plain(65, KEPT);  // Two short lines with their times.
        options.stampTimes = true;
        RotatingFileLogHandler sink(path, options);
        put(sink, "line 1");
        put(sink, "line 2");
        put(sink, "line 3");
        test::Gate isInside;
        test::Gate mayGoOn;
        std::thread other([&] {
            FileCalls calls;
            calls.onCall = [&](FileCall call) {
                if (call == held && !isInside.isOpen()) {
                    isInside.open();
                    mayGoOn.wait();
                }
                return 0;
            };
            put(sink, "of the parent");
        });
        isInside.wait();
        expectSuccess(forked([&] {
            for (int line = 0; line < 3; ++line) {
                put(sink, "child " + std::to_string(line));
            }
            if (sink.lostLines() != 0) {
                _exit(1);
            }
        }));
        mayGoOn.open();
        other.join();
        std::vector<std::string> lines;
        for (std::string const& line : allLinesOf(path)) {
            lines.push_back(withoutStamp(line));
        }
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(lines, (std::vector<std::string>{"child 0", "child 1", "child 2", "line 1",
                                                   "line 2", "line 3", "of the parent"}))
            << nameOf(held);
    }
}

TEST_F(RotatingFileProcessTest, AChildThatWasForkedDuringAMoveDoesNotKeepTheLock) {
    RotatingFileLogHandler sink(path, plain(12, KEPT));
    put(sink, "line 1");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t child = -1;
    {
        FileCalls calls;
        calls.onCall = [&](FileCall call) {
            if (call == FileCall::RENAME && child == -1) {
                child = forked([&] {
                    close(ends[1]);
                    char byte = 0;
                    [[maybe_unused]] auto const end = read(ends[0], &byte, 1);
                });
                return EBUSY;  // So the file that is locked stays the log.
            }
            return 0;
        };
        put(sink, "line 2");
    }
    ASSERT_GT(child, 0);
    put(sink, "line 3");  // The child lives, with all descriptors of that moment.
    EXPECT_EQ(contentOf(path + ".1"), "line 1\nline 2\n");
    EXPECT_EQ(contentOf(path), "line 3\n");
    close(ends[0]);
    close(ends[1]);
    expectSuccess(child);
}

TEST_F(RotatingFileProcessTest, TheSinkOfAForkedChildDiesAlone) {
    auto sink = std::make_unique<RotatingFileLogHandler>(path, plain());
    put(*sink, "parent");
    expectSuccess(forked([&] {
        put(*sink, "child");
        sink.reset();
    }));
    put(*sink, "parent again");
    EXPECT_EQ(contentOf(path), "parent\nchild\nparent again\n");
}

// --- kill -9

// In memory that the process which is killed shares with the test.
struct Progress {
    std::atomic<int> linesDone;
};

constexpr int LINES_OF_A_RUN = 9;

struct Way {
    char const* name;
    unsigned int generations;
    bool areWritesShort;
    bool isShared;  // The sink of the run after the killed one is open before.
    bool isFull;    // Times, and each line on the disk.
};

void PrintTo(Way const& way, std::ostream* stream) {
    *stream << way.name;
}

RotatingFileOptions optionsOf(Way const& way) {
    RotatingFileOptions options = plain(36, way.generations);
    if (way.isFull) {
        options.maxBytes += 2 * 25;
        options.stampTimes = true;
        options.syncLevel = log::VERBOSE;
    }
    return options;
}

void logARun(RotatingFileLogHandler& sink, char run, Progress& progress) {
    for (int line = 0; line < LINES_OF_A_RUN; ++line) {
        put(sink, std::string("run ") + run + " line " + std::to_string(line));
        progress.linesDone.store(line + 1);
    }
}

// Kills the process at its stop of that number: before or after a call of the system. Whether there
// were so many. Negative: this cannot be done here.
int killAtStop(pid_t child, int stop) {
    int status = 0;
    waitpid(child, &status, 0);  // At its own SIGSTOP.
    if (!WIFSTOPPED(status)) {
        return -1;
    }
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL);
    for (int count = 0; count < stop; ++count) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        if (waitpid(child, &status, 0) != child || WIFEXITED(status) || WIFSIGNALED(status)) {
            return 0;
        }
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return 1;
}

// Of what is kept, the lines of both runs, each once and in order. Where older files are dropped,
// the first lines are missing.
void expectWholeRuns(std::vector<std::string> const& lines, Way const& way, int done,
                     std::string const& what) {
    int next = 0;
    char run = 'a';
    bool isTorn = false;
    bool isKnown = way.generations == KEPT;
    for (std::string const& stamped : lines) {
        std::string const line = way.isFull ? extra::withoutStamp(stamped) : stamped;
        if (!isKnown && std::sscanf(line.c_str(), "run %c line %d", &run, &next) == 2) {
            isKnown = true;
        }
        auto expected = [&] { return std::string("run ") + run + " line " + std::to_string(next); };
        if (run == 'a' && line == "run b line 0") {
            EXPECT_GE(next, done) << what;
            run = 'b';
            next = 0;
        }
        if (line == expected()) {
            EXPECT_FALSE(isTorn && run == 'a') << what;
            ++next;
        } else {
            // The last line of the killed run.
            bool const mayTear = way.areWritesShort && !isTorn && run == 'a';
            EXPECT_TRUE(mayTear && (!isKnown || expected().find(line) == 0))
                << what << ": " << line;
            isTorn = true;
        }
    }
    EXPECT_EQ(run, 'b') << what;
    EXPECT_EQ(next, LINES_OF_A_RUN) << what;
}

class KilledProcessTest : public RotatingFileProcessTest,
                          public ::testing::WithParamInterface<Way> {};

TEST_P(KilledProcessTest, LosesNoLineAndDoublesNoneWhereverItWasKilled) {
    Way const& way = GetParam();
    void* const memory =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto& progress = *new (memory) Progress{};
    int killed = 0;
    for (int stop = 1;; ++stop) {
        for (std::string const& file : filesOf(path)) {
            std::filesystem::remove(file);
        }
        progress.linesDone = 0;
        std::unique_ptr<RotatingFileLogHandler> survivor;
        if (way.isShared) {
            survivor = std::make_unique<RotatingFileLogHandler>(path, optionsOf(way));
        }
        pid_t const child = fork();
        if (child == 0) {
            if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
                _exit(1);
            }
            raise(SIGSTOP);
            FileCalls calls;
            if (way.areWritesShort) {
                calls.onWrite = [](std::size_t count) { return (count + 1) / 2; };
            }
            RotatingFileLogHandler sink(path, optionsOf(way));
            logARun(sink, 'a', progress);
            _exit(0);
        }
        int const result = killAtStop(child, stop);
        if (result < 0) {
            GTEST_SKIP() << "This system does not let the test trace a process.";
        }
        if (result == 0) {
            break;
        }
        ++killed;
        Progress second = {};
        int const done = progress.linesDone;
        {
            FileCalls const unsynced;
            if (!survivor) {
                survivor = std::make_unique<RotatingFileLogHandler>(path, optionsOf(way));
            }
            logARun(*survivor, 'b', second);
        }
        expectWholeRuns(allLinesOf(path), way, done, "killed at stop " + std::to_string(stop));
        EXPECT_EQ(survivor->lostLines(), 0u);
        EXPECT_FALSE(exists(path + "." + std::to_string(way.generations + 2)));
        if (HasFailure()) {
            break;
        }
    }
    RecordProperty("kills", killed);
    EXPECT_GT(killed, 2 * LINES_OF_A_RUN);
    munmap(memory, sizeof(Progress));
}

INSTANTIATE_TEST_SUITE_P(Ways, KilledProcessTest,
                         ::testing::Values(Way{"Whole", KEPT, false, false, false},
                                           Way{"Short", KEPT, true, false, false},
                                           Way{"NoneKept", 0, false, false, false},
                                           Way{"OneKept", 1, false, false, false},
                                           Way{"TwoKept", 2, false, false, false},
                                           Way{"TwoKeptShared", 2, false, true, false},
                                           Way{"Shared", KEPT, false, true, false},
                                           Way{"Full", KEPT, false, false, true}),
                         [](auto const& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace ovra::extra
