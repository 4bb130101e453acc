// The thread behind ScheduledTasks, by a clock that the test sets.

#include <ovra/extra/internal/ScheduleThread.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/extra/ManualClock.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/Bounded.h>

namespace ovra::extra {
namespace {

using concurrent::Executable;
using concurrent::NORMAL;
using ovra::test::Gate;
using std::chrono::milliseconds;
using test::ManualClock;
using test::ManualExecutor;
using test::RecordingExecutor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ScheduleThreadTest : public ovra::test::BoundedTest {
protected:
    ~ScheduleThreadTest() override {
        if (thread != nullptr) {
            thread->stop();
        }
    }

    static Clock::Time at(std::int64_t ms) { return ManualClock::at(ms); }
    static constexpr Clock::Time NEVER = Clock::Time::max();

    Schedules::Job job(std::string const& text) {
        auto const made = std::make_shared<ScheduledJob>();
        made->function = [this, text] {
            ran.push_back(text);
            return Executable::SUCCESS;
        };
        made->priority = NORMAL;
        return made;
    }
    std::uint64_t after(int delayMs, std::string const& text) {
        return thread->add(milliseconds(delayMs), milliseconds(0), job(text));
    }
    std::uint64_t every(int periodMs, std::string const& text) {
        return thread->add(milliseconds(periodMs), milliseconds(periodMs), job(text));
    }
    // Sets the time, and waits until everything that is due then has been submitted.
    void set(std::int64_t ms, Clock::Time next) {
        clock->set(ms);
        clock->awaitWaitFor(next);
    }
    std::vector<std::string> runAll() {
        executor->runAll();
        return std::exchange(ran, {});
    }

    ManualClock ownClock;
    ManualClock* const clock = &ownClock;
    std::shared_ptr<ManualExecutor> const executor = std::make_shared<ManualExecutor>();
    ScheduleThread* thread = new ScheduleThread(executor, ownClock);
    std::vector<std::string> ran;
};

TEST_F(ScheduleThreadTest, SubmitsInTheOrderOfDueTimes) {
    after(30, "c");
    after(10, "a");
    after(20, "b");
    clock->awaitWaitFor(at(1010));
    after(30, "d");
    EXPECT_THAT(runAll(), IsEmpty());
    set(1010, at(1020));
    EXPECT_THAT(runAll(), ElementsAre("a"));
    set(1040, NEVER);
    EXPECT_THAT(runAll(), ElementsAre("b", "c", "d"));
}

TEST_F(ScheduleThreadTest, NowAndEarlierIsAtOnce) {
    after(0, "now");
    after(-5, "earlier");
    thread->add(milliseconds::min(), milliseconds(0), job("earliest"));
    after(1, "last");
    clock->awaitWaitFor(at(1001));
    EXPECT_THAT(runAll(), ElementsAre("now", "earlier", "earliest"));
}

TEST_F(ScheduleThreadTest, RecursAtAFixedRateFromOnePeriodOn) {
    every(100, "tick");
    clock->awaitWaitFor(at(1100));
    EXPECT_THAT(runAll(), IsEmpty());
    set(1099, at(1100));
    EXPECT_THAT(runAll(), IsEmpty());
    set(1150, at(1200));  // Late: the grid stays.
    EXPECT_THAT(runAll(), ElementsAre("tick"));
    set(1200, at(1300));
    EXPECT_THAT(runAll(), ElementsAre("tick"));
}

TEST_F(ScheduleThreadTest, NoBurstAfterAStall) {
    every(100, "tick");
    every(30, "tock");
    clock->awaitWaitFor(at(1030));
    set(5050, at(5080));
    EXPECT_THAT(runAll(), ElementsAre("tock", "tick"));
    set(5100, at(5110));
    EXPECT_THAT(runAll(), ElementsAre("tock", "tick"));
}

TEST_F(ScheduleThreadTest, NoSecondRunWhileOneIsUnderWay) {
    every(100, "tick");
    clock->awaitWaitFor(at(1100));
    set(1100, at(1200));
    set(1200, at(1300));
    set(1300, at(1400));
    EXPECT_THAT(runAll(), ElementsAre("tick"));
    set(1400, at(1500));
    auto task = executor->takeNext();
    ASSERT_NE(task, nullptr);
    task->execute();
    set(1500, at(1600));
    EXPECT_EQ(executor->takeNext(), nullptr) << "its callback has not run";
    task->performCallback();
    set(1600, at(1700));  // Although the last task still exists.
    auto const next = executor->takeNext();
    EXPECT_NE(next, nullptr);
    task.reset();
    set(1700, at(1800));  // Nor does its end count for the next one.
    EXPECT_EQ(executor->takeNext(), nullptr);
}

TEST_F(ScheduleThreadTest, WhatTheExecutorDroppedHasEnded) {
    every(100, "tick");
    clock->awaitWaitFor(at(1100));
    set(1100, at(1200));
    executor->takeNext().reset();
    set(1200, at(1300));
    EXPECT_THAT(runAll(), ElementsAre("tick"));
}

TEST_F(ScheduleThreadTest, ARefusalEndsWhatRecurs) {
    auto const tick = every(100, "tick");
    auto const tock = every(300, "tock");
    clock->awaitWaitFor(at(1100));
    executor->close();
    set(1100, at(1300));
    EXPECT_FALSE(thread->remove(tick));
    EXPECT_TRUE(thread->remove(tock));
}

TEST_F(ScheduleThreadTest, ASubmissionThatThrowsEndsWhatRecursAndNothingElse) {
    auto const throwing = std::make_shared<RecordingExecutor>();
    throwing->throws = true;
    thread->stop();
    thread = new ScheduleThread(throwing, ownClock);
    auto const tick = every(100, "tick");
    clock->awaitWaitFor(at(1100));
    set(1100, NEVER);
    EXPECT_EQ(throwing->submissions, 1);
    EXPECT_FALSE(thread->remove(tick));
    throwing->throws = false;
    after(0, "next");
    ovra::test::yieldUntil([&] { return throwing.use_count() > 0 && clock->waitsSoFar() >= 3; });
    EXPECT_EQ(throwing->submissions, 2);
}

TEST_F(ScheduleThreadTest, WhatIsCancelledIsNotSubmitted) {
    auto const a = after(10, "a");
    auto const b = every(10, "b");
    auto const c = after(10, "c");
    clock->awaitWaitFor(at(1010));
    EXPECT_TRUE(thread->remove(a));
    EXPECT_FALSE(thread->remove(a));
    EXPECT_TRUE(thread->remove(b));
    EXPECT_FALSE(thread->remove(0));
    EXPECT_FALSE(thread->remove(c + 1));
    set(1010, NEVER);
    EXPECT_FALSE(thread->remove(c));  // Submitted: it still runs.
    EXPECT_THAT(runAll(), ElementsAre("c"));
}

TEST_F(ScheduleThreadTest, CancelFromInsideEndsIt) {
    std::uint64_t id = 0;
    auto const tick = job("");
    bool wasThere = false;
    tick->function = [&] {
        ran.push_back("tick");
        wasThere = thread->remove(id);
        after(7, "follows");
        return Executable::SUCCESS;
    };
    id = thread->add(milliseconds(100), milliseconds(100), tick);
    clock->awaitWaitFor(at(1100));
    set(1100, at(1200));
    EXPECT_THAT(runAll(), ElementsAre("tick"));
    EXPECT_TRUE(wasThere);
    set(1107, NEVER);
    EXPECT_THAT(runAll(), ElementsAre("follows"));
}

TEST_F(ScheduleThreadTest, SleepsUntilTheFirstDueTime) {
    after(100, "a");
    clock->awaitWaitFor(at(1100));
    EXPECT_EQ(clock->waitsSoFar(), 1);
    after(200, "b");  // Later: the thread is not woken.
    every(300, "c");
    clock->set(1099);
    EXPECT_EQ(clock->waitsSoFar(), 1);
    after(0, "first");
    ovra::test::yieldUntil([&] { return !executor->isIdle(); });
    clock->awaitWaitFor(at(1100));
    EXPECT_LE(clock->waitsSoFar(), 2);
}

TEST_F(ScheduleThreadTest, StopDropsWhatIsDueLaterAndWaitsForNoTask) {
    auto const held = std::make_shared<int>(1);
    auto const dropped = job("");
    dropped->function = [this, held] {
        ran.push_back("submitted");
        return Executable::SUCCESS;
    };
    thread->add(milliseconds(0), milliseconds(0), dropped);
    auto const later = job("");
    later->function = [copy = held] { return Executable::SUCCESS; };
    thread->add(milliseconds(10), milliseconds(0), later);
    later->function = nullptr;
    clock->awaitWaitFor(at(1010));
    thread->stop();
    thread = nullptr;
    EXPECT_EQ(held.use_count(), 2);  // Here, and in the task that was submitted.
    clock->set(2000);
    EXPECT_THAT(runAll(), ElementsAre("submitted"));
}

TEST_F(ScheduleThreadTest, ReleasesFunctionsWithoutALock) {
    int released = 0;
    auto const add = [&](int delayMs, int periodMs) {
        auto const made = std::make_shared<ScheduledJob>();
        made->priority = NORMAL;
        made->function = [atEnd = ovra::test::atEnd([&] {
                              ++released;
                              thread->remove(99);
                          })] { return Executable::SUCCESS; };
        return thread->add(milliseconds(delayMs), milliseconds(periodMs), made);
    };
    thread->remove(add(10, 10));
    EXPECT_EQ(released, 1);
    // Refused, and so released by the thread itself.
    executor->close();
    add(5, 0);
    add(5, 5);
    clock->awaitWaitFor(at(1005));
    set(1005, NEVER);
    EXPECT_EQ(released, 3);
}

// Keeps a thread inside `now()`, and so under the lock.
class StoppingClock : public ManualClock {
public:
    Time now() const override {
        if (stops.exchange(false)) {
            entered.open();
            released.wait();
        }
        return ManualClock::now();
    }
    mutable std::atomic<bool> stops{false};
    mutable Gate entered;
    mutable Gate released;
};

TEST_F(ScheduleThreadTest, AForkedProcessNeedsNoLock) {
    StoppingClock stoppingClock;
    auto* const stopping = &stoppingClock;
    thread->stop();
    thread = new ScheduleThread(executor, stoppingClock);
    auto const id = after(100, "a");
    stopping->awaitWaitFor(at(1100));
    stopping->stops = true;
    std::thread adding([&] { after(200, "b"); });
    stopping->entered.wait();
    pid_t const child = fork();
    if (child == 0) {
        alarm(60);
        bool const isRefused = after(0, "c") == 0 && !thread->remove(id);
        thread->stop();
        _exit(isRefused ? 0 : 1);
    }
    stopping->released.open();
    adding.join();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(thread->remove(id));
    thread->stop();
    thread = nullptr;
}

}  // namespace
}  // namespace ovra::extra
