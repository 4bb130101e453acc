// A process that crashes in the middle of anything, and writes its last lines from the handler.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/extra/RecentLinesLogHandler.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

namespace {

// When this thread next asks for memory.
thread_local bool crashesInMalloc = false;

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

extern "C" void* __libc_malloc(std::size_t size) noexcept;

extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept {
    if (crashesInMalloc) {
        raise(SIGSEGV);
    }
    return __libc_malloc(size);
}

constexpr bool OWNS_MALLOC = true;
#else
constexpr bool OWNS_MALLOC = false;
#endif

namespace ovra::extra {
namespace {

using log::test::linesOf;

constexpr int PLACES = 50;

class CrashDumpTest : public test::BoundedTest {};

RecentLinesLogHandler* recent = nullptr;
int dumpEnd = -1;

void writeDump(int) {
    crashesInMalloc = false;
    bool const isWritten = recent->writeTo(dumpEnd);
    _exit(isWritten ? 0 : 1);
}

// A sink that crashes, at its own line, on whichever thread.
class CrashingSink : public log::LogHandler {
public:
    void handleLogMessage(char const* line, log::LogLevel) override {
        if (std::string(line).find("crash now") != std::string::npos) {
            raise(SIGSEGV);
        }
    }
};

// The dump of a child that runs `work`, which crashes.
template <typename Work>
std::string dumpOfCrash(Work work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        dumpEnd = ends[1];
        auto const sink = std::make_shared<RecentLinesLogHandler>(PLACES);
        recent = sink.get();
        log::addLogHandler(sink, "recent");
        log::setLogLevel(log::INFO);
        struct sigaction action = {};
        action.sa_handler = writeDump;
        sigaction(SIGSEGV, &action, nullptr);
        work();
        _exit(2);
    }
    close(ends[1]);
    std::string dump;
    char text[4096];
    for (ssize_t length; (length = read(ends[0], text, sizeof text)) > 0;) {
        dump.append(text, static_cast<std::size_t>(length));
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    return dump;
}

void logNumbered(int from, int to) {
    for (int number = from; number <= to; ++number) {
        log::log(log::INFO, "tag", "line %d", number);
    }
}

std::string numbered(int from, int to) {
    std::string text;
    for (int number = from; number <= to; ++number) {
        text += "[tag:INFO] line " + std::to_string(number) + "\n";
    }
    return text;
}

TEST_F(CrashDumpTest, IsWholeAfterACrashInsideMalloc) {
    if (!OWNS_MALLOC) {
        GTEST_SKIP() << "The sanitizer has its own malloc.";
    }
    std::string const dump = dumpOfCrash([] {
        logNumbered(1, 120);
        crashesInMalloc = true;
        std::free(std::malloc(1000));
    });
    EXPECT_EQ(dump, numbered(71, 120));
}

TEST_F(CrashDumpTest, IsWholeAfterACrashInsideLog) {
    if (!OWNS_MALLOC) {
        GTEST_SKIP() << "The sanitizer has its own malloc.";
    }
    // Where `log` formats its message.
    std::string const dump = dumpOfCrash([] {
        logNumbered(1, 10);
        crashesInMalloc = true;
        log::log(log::INFO, "tag", "%s", std::string(1000, 'x').c_str());
    });
    EXPECT_EQ(dump, numbered(1, 10));
}

TEST_F(CrashDumpTest, IsWholeAfterACrashInsideASink) {
    std::string const dump = dumpOfCrash([] {
        log::addLogHandler(std::make_shared<CrashingSink>(), "crashing");
        logNumbered(1, 10);
        log::log(log::INFO, "tag", "crash now");
    });
    // One sink may come before or after the other.
    if (linesOf(dump).size() == 11) {
        EXPECT_EQ(dump, numbered(1, 10) + "[tag:INFO] crash now\n");
    } else {
        EXPECT_EQ(dump, numbered(1, 10));
    }
}

// A line whose text ends where memory does: the copy itself crashes.
TEST_F(CrashDumpTest, LeavesOutTheLineThatItCrashedIn) {
    std::string const dump = dumpOfCrash([] {
        logNumbered(1, 60);
        recent->handleLogMessage(reinterpret_cast<char const*>(1), log::INFO);
    });
    EXPECT_EQ(dump, numbered(12, 60));
}

TEST_F(CrashDumpTest, IsOrderedWhileOtherThreadsLog) {
    for (int round = 0; round < test::scaled(50); ++round) {
        std::string const dump = dumpOfCrash([] {
            std::atomic<bool> isEnding{false};
            test::Gate areLogging(3);
            std::vector<std::thread> loggers;
            for (int thread = 0; thread < 3; ++thread) {
                loggers.emplace_back([&, thread] {
                    for (int number = 0; !isEnding; ++number) {
                        char line[64];
                        std::snprintf(line, sizeof line, "thread %d line %d.", thread, number);
                        recent->handleLogMessage(line, log::INFO);
                        areLogging.open();
                    }
                });
            }
            areLogging.wait();
            raise(SIGSEGV);
        });
        int last[3] = {-1, -1, -1};
        for (std::string const& line : linesOf(dump)) {
            int thread = 0;
            int number = 0;
            int end = 0;
            ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d.%n", &thread, &number, &end), 2)
                << line;
            ASSERT_EQ(end, static_cast<int>(line.size())) << line;
            ASSERT_LT(last[thread], number) << line;
            last[thread] = number;
        }
    }
}

}  // namespace
}  // namespace ovra::extra
