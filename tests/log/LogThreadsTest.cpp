#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;

using namespace ovra::test;
using namespace test;

TEST(LogThreadsTest, TakesNoLockOfItsOwn) {
    CLibraryProbe probe;
    std::vector<void const*> locked;
    probe.onLock = [&](void const* mutex) {
        locked.push_back(mutex);
        return 0;
    };
    log(ERROR, "tag", "text");
    EXPECT_EQ(locked.size(), 1u) << "besides that of the platform sink";
}

TEST(LogThreadsTest, OneThreadsSlowSinkDoesNotHoldUpAnother) {
    Gate entered;
    Gate release;
    auto const slowThread = std::make_shared<std::thread::id>();
    Registration const registration(std::make_shared<FunctionSink>([&](char const*, LogLevel) {
        if (std::this_thread::get_id() == *slowThread) {
            entered.open();
            EXPECT_TRUE(release.wait());
        }
    }));
    Gate start;
    std::thread slow([&] {
        EXPECT_TRUE(start.wait());
        log(ERROR, "slow", "text");
    });
    *slowThread = slow.get_id();
    start.open();
    EXPECT_TRUE(entered.wait());

    // Stays here for good if it has to wait for the other.
    CLibraryProbe probe;
    log(ERROR, "quick", "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[quick:ERROR] text"));

    release.open();
    slow.join();
}

constexpr int THREADS = 8;
constexpr int LINES_PER_THREAD = 100;

std::string lineOf(int thread, int number, LogLevel level) {
    return "[thread " + std::to_string(thread) + ":" + logLevelToName(level) + "] line " +
           std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(100 + thread), static_cast<char>('a' + thread));
}

// Each thread's lines are there, whole and in the order in which it logged them.
void expectLinesOfAllThreads(std::vector<std::string> const& lines, LogLevel level) {
    std::vector<int> next(THREADS, 0);
    for (std::string const& line : lines) {
        bool isWhole = false;
        for (int thread = 0; thread < THREADS; ++thread) {
            int& number = next[static_cast<std::size_t>(thread)];
            if (line == lineOf(thread, number, level)) {
                ++number;
                isWhole = true;
                break;
            }
        }
        EXPECT_TRUE(isWhole) << "out of order, or not whole: " << line;
    }
    EXPECT_THAT(next, ::testing::Each(LINES_PER_THREAD));
}

TEST(LogThreadsTest, ThreadsLogAtOnceThroughEverySink) {
    ScratchDirectory const directory;
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    auto const sink = std::make_shared<RecordingSink>();
    Registration const own(sink);
    Registration const platform(PLATFORM_HANDLER);
    Registration const streams(STANDARD_STREAM_HANDLER);
    std::string const path = directory.path("log");
    Registration const file(path);
    addLogHandler(FILE_HANDLER, file.name());
    LevelKeeper const levelKeeper(INFO);

    for (LogLevel const level : {ERROR, INFO}) {
        Gate start;
        std::vector<std::vector<std::string>> systemLogLines(THREADS);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([&, thread] {
                CLibraryProbe probe;
                std::string const tag = "thread " + std::to_string(thread);
                std::string const filling(static_cast<std::size_t>(100 + thread),
                                          static_cast<char>('a' + thread));
                EXPECT_TRUE(start.wait());
                for (int number = 0; number < LINES_PER_THREAD; ++number) {
                    log(level, tag.c_str(), "line %d %s", number, filling.c_str());
                }
                systemLogLines[static_cast<std::size_t>(thread)] = probe.systemLogLines();
            });
        }
        start.open();
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (int thread = 0; thread < THREADS; ++thread) {
            auto const& lines = systemLogLines[static_cast<std::size_t>(thread)];
            ASSERT_EQ(lines.size(), 2u * LINES_PER_THREAD);
            for (std::size_t i = 0; i < lines.size(); ++i) {
                EXPECT_EQ(lines[i], lineOf(thread, static_cast<int>(i / 2), level));
            }
        }
    }

    auto const select = [](std::vector<std::string> const& lines, LogLevel level) {
        std::vector<std::string> selected;
        for (std::string const& line : lines) {
            if (line.find(std::string(":") + logLevelToName(level) + "]") != std::string::npos) {
                selected.push_back(line);
            }
        }
        return selected;
    };
    auto const withoutFlushes = [](std::string const& text) {
        std::vector<std::string> lines = test::linesOf(text);
        for (std::string& line : lines) {
            std::string const flush = "<flush>";
            if (line.compare(0, flush.size(), flush) == 0) {
                line.erase(0, flush.size());
            }
        }
        EXPECT_EQ(lines.back(), "") << "the last line was not flushed";
        lines.pop_back();
        return lines;
    };
    std::vector<std::string> const fileLines = test::linesOf(test::contentOf(path));
    EXPECT_EQ(fileLines.size(), 2u * THREADS * LINES_PER_THREAD);
    for (LogLevel const level : {ERROR, INFO}) {
        expectLinesOfAllThreads(select(fileLines, level), level);
        expectLinesOfAllThreads(select(sink->texts(), level), level);
    }
    expectLinesOfAllThreads(withoutFlushes(errors.text), ERROR);
    expectLinesOfAllThreads(withoutFlushes(output.text), INFO);
}

TEST(LogThreadsTest, LevelMayChangeWhileOthersLog) {
    LevelKeeper const levelKeeper;
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    Gate start;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            EXPECT_TRUE(start.wait());
            for (int number = 0; number < LINES_PER_THREAD; ++number) {
                log(CRITICAL, "always", "%d", number);
                log(VERBOSE, "at times", "%d", number);
                log(levelOf(7), "never", "%d", number);
            }
        });
    }
    threads.emplace_back([&] {
        EXPECT_TRUE(start.wait());
        for (int number = 0; number < LINES_PER_THREAD; ++number) {
            setLogLevel(number % 2 == 0 ? CRITICAL : VERBOSE);
            setDepsDebuggable(number % 2 == 0);
            EXPECT_EQ(getDepsDebuggable(), number % 2 == 0);
        }
    });
    start.open();
    for (std::thread& thread : threads) {
        thread.join();
    }
    setDepsDebuggable(false);
    EXPECT_EQ(getLogLevel(), VERBOSE);

    int always = 0;
    int atTimes = 0;
    int never = 0;
    for (std::string const& text : sink->texts()) {
        always += text.find("[always:CRITICAL]") == 0 ? 1 : 0;
        atTimes += text.find("[at times:VERBOSE]") == 0 ? 1 : 0;
        never += text.find("[never:") == 0 ? 1 : 0;
    }
    EXPECT_EQ(always, 4 * LINES_PER_THREAD);
    EXPECT_LE(atTimes, 4 * LINES_PER_THREAD);
    EXPECT_EQ(never, 0);
}

// --- threads that end inside a sink

struct EndingThread {
    std::function<void()> work;
    bool wasUnwound = false;
    bool wentOn = false;

    // What the thread ended with.
    void* run() {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, &EndingThread::start, this) != 0) {
            ADD_FAILURE() << "no thread";
            return nullptr;
        }
        void* value = nullptr;
        EXPECT_EQ(pthread_join(thread, &value), 0);
        return value;
    }

private:
    static void* start(void* self) {
        auto* const thread = static_cast<EndingThread*>(self);
        std::shared_ptr<void> const unwound(nullptr,
                                            [thread](void*) { thread->wasUnwound = true; });
        thread->work();
        thread->wentOn = true;
        return nullptr;
    }
};

int const exitValue = 0;

[[noreturn]] void exitThread() {
    pthread_exit(const_cast<int*>(&exitValue));
}

void cancelThread() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

TEST(LogThreadsTest, ThreadMayExitInsideASink) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { exitThread(); }));
    EndingThread thread;
    thread.work = [] { log(ERROR, "tag", "text"); };
    EXPECT_EQ(thread.run(), &exitValue);
    EXPECT_TRUE(thread.wasUnwound);
    EXPECT_FALSE(thread.wentOn);
}

TEST(LogThreadsTest, ThreadMayBeCancelledInsideASink) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { cancelThread(); }));
    EndingThread thread;
    thread.work = [] { log(ERROR, "tag", "text"); };
    EXPECT_EQ(thread.run(), PTHREAD_CANCELED);
    EXPECT_TRUE(thread.wasUnwound);
    EXPECT_FALSE(thread.wentOn);
}

TEST(LogThreadsTest, ThreadThatEndsInsideASinkLeavesNothingBehind) {
    for (auto const& end :
         {std::function<void()>(exitThread), std::function<void()>(cancelThread)}) {
        Registration const registration(
            std::make_shared<FunctionSink>([&](char const*, LogLevel) { end(); }));
        EXPECT_LT(largeTextsKeptBy([] {
                      EndingThread thread;
                      thread.work = logLargeText;
                      thread.run();
                      EXPECT_FALSE(thread.wentOn);
                  }),
                  0.5);
    }
}

TEST(LogThreadsTest, ThreadThatEndsInTheSystemLogReleasesThePlatformSink) {
    EndingThread thread;
    thread.work = [] {
        CLibraryProbe probe;
        probe.onSystemLog = cancelThread;
        log(ERROR, "tag", "text");
    };
    EXPECT_EQ(thread.run(), PTHREAD_CANCELED);
    EXPECT_TRUE(thread.wasUnwound);

    CLibraryProbe probe;
    probe.onLock = [](void const* mutex) {
        auto* const native = static_cast<pthread_mutex_t*>(const_cast<void*>(mutex));
        int const failure = pthread_mutex_trylock(native);
        if (failure == 0) {
            pthread_mutex_unlock(native);
        }
        return failure;
    };
    log(ERROR, "tag", "text");
    EXPECT_EQ(probe.systemLogCalls.size(), 1u) << "the mutex is still locked";
}

}  // namespace

}  // namespace ovra::log
