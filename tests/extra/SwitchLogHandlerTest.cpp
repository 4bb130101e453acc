#include <ovra/extra/SwitchLogHandler.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

namespace ovra::extra {
namespace {

using ovra::test::FunctionSink;
using ovra::test::RecordingSink;
using test::Gate;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SwitchLogHandlerTest : public test::BoundedTest {};

constexpr log::LogLevel levelOf(int value) {
    return static_cast<log::LogLevel>(value);
}

// Counts the lines under way and, when it dies, whether there were any.
class CountingSink : public log::LogHandler {
public:
    CountingSink(std::atomic<long>& counted, std::atomic<int>& alive, std::atomic<int>& wrong)
        : lines(counted), living(alive), deadTooEarly(wrong) {
        ++living;
    }
    ~CountingSink() override {
        deadTooEarly += inside.load();
        inside = 1000;
        --living;
    }
    void handleLogMessage(char const*, log::LogLevel) override {
        if (++inside > 1000) {
            ++deadTooEarly;
        }
        ++lines;
        --inside;
    }

private:
    std::atomic<int> inside{0};
    std::atomic<long>& lines;
    std::atomic<int>& living;
    std::atomic<int>& deadTooEarly;
};

TEST_F(SwitchLogHandlerTest, PassesLinesOnAsTheyAre) {
    auto const target = std::make_shared<RecordingSink>();
    SwitchLogHandler sink(target);
    char const line[] = "a line with 100 %s";
    sink.handleLogMessage(line, log::ERROR);
    ASSERT_EQ(target->lines().size(), 1u);
    EXPECT_EQ(target->lines()[0].address, line);
    EXPECT_EQ(target->lines()[0].level, log::ERROR);
    char const* passed = line;
    sink.exchange(
        std::make_shared<FunctionSink>([&](char const* text, log::LogLevel) { passed = text; }));
    sink.handleLogMessage(nullptr, log::ERROR);
    EXPECT_EQ(passed, nullptr);
}

TEST_F(SwitchLogHandlerTest, ReplacesAndMutes) {
    auto const first = std::make_shared<RecordingSink>();
    auto const second = std::make_shared<RecordingSink>();
    SwitchLogHandler sink;
    sink.handleLogMessage("to nobody", log::INFO);
    EXPECT_EQ(sink.exchange(first), nullptr);
    sink.handleLogMessage("to the first", log::INFO);
    EXPECT_EQ(sink.exchange(second), first);
    sink.handleLogMessage("to the second", log::INFO);
    EXPECT_EQ(sink.exchange(nullptr), second);
    sink.handleLogMessage("to nobody", log::INFO);
    EXPECT_EQ(sink.exchange(first), nullptr);
    EXPECT_EQ(sink.exchange(first), first);
    EXPECT_THAT(first->texts(), ElementsAre("to the first"));
    EXPECT_THAT(second->texts(), ElementsAre("to the second"));
    EXPECT_EQ(first.use_count(), 2);
    EXPECT_EQ(second.use_count(), 1);
}

TEST_F(SwitchLogHandlerTest, FiltersByLevelButNeverLevelZeroAndBelow) {
    for (int const threshold : {-5, 0, 1, 3, 6, 9}) {
        auto const target = std::make_shared<RecordingSink>();
        SwitchLogHandler sink(target, levelOf(threshold));
        EXPECT_EQ(sink.getLevel(), threshold);
        for (int level = -1; level <= 9; ++level) {
            sink.handleLogMessage("a line", levelOf(level));
        }
        std::vector<int> passed;
        for (auto const& line : target->lines()) {
            passed.push_back(line.level);
        }
        std::vector<int> expected;
        for (int level = -1; level <= std::max(threshold, 0); ++level) {
            expected.push_back(level);
        }
        EXPECT_EQ(passed, expected) << threshold;
    }
    SwitchLogHandler sink;
    EXPECT_EQ(sink.getLevel(), log::VERBOSE);
    sink.setLevel(levelOf(-7));
    EXPECT_EQ(sink.getLevel(), -7);
}

TEST_F(SwitchLogHandlerTest, PassesOnWhatTheTargetThrows) {
    SwitchLogHandler sink(std::make_shared<FunctionSink>(
        [](char const*, log::LogLevel) { throw std::runtime_error("from the target"); }));
    EXPECT_THROW(sink.handleLogMessage("a line", log::INFO), std::runtime_error);
    EXPECT_THROW(sink.handleLogMessage("a line", log::INFO), std::runtime_error);
}

TEST_F(SwitchLogHandlerTest, LetsTheTargetCallTheSwitch) {
    SwitchLogHandler sink;
    std::shared_ptr<log::LogHandler> const next = std::make_shared<RecordingSink>();
    int calls = 0;
    sink.exchange(std::make_shared<FunctionSink>([&](char const*, log::LogLevel level) {
        ++calls;
        sink.exchange(next);  // Its own last reference is the one of this call.
        sink.handleLogMessage("from the target", level);
        sink.setLevel(log::INFO);
    }));
    sink.handleLogMessage("a line", log::INFO);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(static_cast<RecordingSink&>(*next).texts(), ElementsAre("from the target"));
}

TEST_F(SwitchLogHandlerTest, TheTargetDiesAfterItsLastLineAndWithoutALock) {
    SwitchLogHandler sink;
    Gate isInside;
    Gate mayGoOn;
    std::atomic<bool> isDead{false};
    auto const dies = [&] {
        sink.handleLogMessage("from the destructor", log::INFO);  // Would wait for a lock for ever.
        isDead = true;
    };
    sink.exchange(
        std::make_shared<FunctionSink>([&, death = test::atEnd(dies)](char const*, log::LogLevel) {
            isInside.open();
            mayGoOn.wait();
        }));
    std::thread logger([&] { sink.handleLogMessage("a line", log::INFO); });
    isInside.wait();
    EXPECT_NE(sink.exchange(nullptr), nullptr);
    EXPECT_FALSE(isDead);
    mayGoOn.open();
    logger.join();
    EXPECT_TRUE(isDead);
}

TEST_F(SwitchLogHandlerTest, KeepsEveryTargetAliveForItsLinesWhileItIsExchanged) {
    std::atomic<long> lines{0};
    std::atomic<int> living{0};
    std::atomic<int> deadTooEarly{0};
    auto const makeTarget = [&] {
        return std::make_shared<CountingSink>(lines, living, deadTooEarly);
    };
    SwitchLogHandler sink(makeTarget());
    std::atomic<bool> isDone{false};
    std::atomic<long> logged{0};
    Gate areLogging(4);
    std::vector<std::thread> loggers;
    for (int thread = 0; thread < 4; ++thread) {
        loggers.emplace_back([&] {
            do {
                sink.handleLogMessage("a line", log::INFO);
                ++logged;
                areLogging.open();
            } while (!isDone);
        });
    }
    areLogging.wait();
    for (int round = 0; round < 10000; ++round) {
        sink.exchange(makeTarget());
    }
    isDone = true;
    for (std::thread& logger : loggers) {
        logger.join();
    }
    EXPECT_EQ(lines, logged);
    EXPECT_EQ(living, 1);
    EXPECT_EQ(deadTooEarly, 0);
    EXPECT_NE(sink.exchange(nullptr), nullptr);
    EXPECT_EQ(living, 0);
}

TEST_F(SwitchLogHandlerTest, AForkedChildLogsAndExchangesWhileOtherThreadsDo) {
    std::atomic<long> passed{0};
    // Not the recording one: a child may find its mutex locked.
    auto const makeTarget = [&] {
        return std::make_shared<FunctionSink>([&](char const*, log::LogLevel) { ++passed; });
    };
    SwitchLogHandler sink(makeTarget());
    std::atomic<bool> isDone{false};
    std::vector<std::thread> threads;
    Gate areRunning(2);
    threads.emplace_back([&] {
        areRunning.open();
        while (!isDone) {
            sink.handleLogMessage("a line", log::INFO);
        }
    });
    threads.emplace_back([&] {
        auto const first = makeTarget();
        auto const second = makeTarget();
        areRunning.open();
        while (!isDone) {  // Allocates nothing: a child may find the heap locked.
            sink.exchange(first);
            sink.exchange(second);
        }
    });
    areRunning.wait();
    auto const own = std::make_shared<RecordingSink>();
    for (int round = 0; round < test::scaled(200); ++round) {
        pid_t const child = fork();
        if (child == 0) {
            alarm(test::deadlineSeconds());
            long const before = passed;
            sink.handleLogMessage("a line", log::INFO);
            bool const isPassed = passed == before + 1;  // To one of the two, whatever the moment.
            sink.exchange(own);
            sink.handleLogMessage("to its own", log::INFO);
            _exit(isPassed && own->lines().size() == 1 ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    isDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(SwitchLogHandlerTest, KeepsErrno) {
    SwitchLogHandler sink(std::make_shared<RecordingSink>());
    errno = EXDEV;
    sink.handleLogMessage("a line", log::INFO);
    sink.exchange(nullptr);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(SwitchLogHandlerTest, StandsInTheRegistryInFrontOfASink) {
    auto const sink = std::make_shared<SwitchLogHandler>(nullptr, log::WARNING);
    ovra::test::Registration const registration(sink);
    ovra::test::LevelKeeper const keeper(log::VERBOSE);
    auto const target = std::make_shared<RecordingSink>();
    log::log(log::WARNING, "tag", "before");
    sink->exchange(target);
    log::log(log::WARNING, "tag", "while");
    log::log(log::INFO, "tag", "filtered");
    sink->exchange(nullptr);
    log::log(log::WARNING, "tag", "after");
    EXPECT_THAT(target->texts(), ElementsAre("[tag:WARNING] while"));
}

}  // namespace
}  // namespace ovra::extra
