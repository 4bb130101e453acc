// What a monitor shows if it had to wait for its lock, and other threads went on meanwhile.

#include <pthread.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <ovra/extra/MonitoredExecutor.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/MonitorSupport.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/Gate.h>
#include <tests/support/SteadyClock.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::extra {
namespace {

using concurrent::Executable;
using concurrent::NORMAL;
using concurrent::succeed;
using ovra::test::clockMs;
using ovra::test::Gate;
using test::ManualExecutor;
using test::written;

class MonitoredExecutorLockTest : public concurrent::ExecutorTest {
protected:
    MonitoredExecutorLockTest() {
        clockMs = 5000;
        calls.onLock = [this](pthread_mutex_t* locked) {
            if (locked == mutex && meanwhile) {
                std::exchange(meanwhile, nullptr)();
            }
            return 0;
        };
    }
    ~MonitoredExecutorLockTest() override { clockMs = -1; }

    /// Lets this happen the next time that a thread is about to take the lock.
    void doMeanwhile(std::function<void()> const& action) {
        meanwhile = action;
        calls.install();
    }

    std::shared_ptr<ManualExecutor> const manual = std::make_shared<ManualExecutor>();
    MonitoredExecutor monitored{manual};

private:
    pthread_mutex_t* const mutex =
        ovra::test::mutexesLockedBy([this] { monitored.counts(); }).at(0);
    std::function<void()> meanwhile;
    ovra::test::ThreadCalls calls;
};

TEST_F(MonitoredExecutorLockTest, NoTaskHasWaitedForLessThanNothing) {
    auto const submit = [&] {
        clockMs += 100;
        monitored.submitTask(succeed(), NORMAL, {}, "new");
    };
    doMeanwhile(submit);
    TaskCounts const counts = monitored.counts();
    EXPECT_EQ(counts.waiting, 1u);
    EXPECT_EQ(counts.oldestWaiting.count(), 0);
    manual->runAll();
    doMeanwhile(submit);
    EXPECT_EQ(written(monitored), "new waiting 0 ms\n");
}

TEST_F(MonitoredExecutorLockTest, RunningTasksAreInTheOrderOfTheirTimes) {
    Gate hasBegun;
    Gate mayEnd;
    std::string duringTheSecond;
    monitored.submitTask(
        [&] {
            hasBegun.open();
            mayEnd.wait();
            return Executable::SUCCESS;
        },
        NORMAL, {}, "first");
    monitored.submitTask(
        [&] {
            clockMs += 10;
            duringTheSecond = written(monitored);
            return Executable::SUCCESS;
        },
        NORMAL, {}, "second");
    auto const first = manual->takeNext();
    std::thread worker;
    doMeanwhile([&] {
        clockMs += 100;
        worker = std::thread([&] {
            first->execute();
            first->performCallback();
        });
        hasBegun.wait();
    });
    manual->runNext();
    mayEnd.open();
    worker.join();
    EXPECT_EQ(duringTheSecond, "first running 10 ms\nsecond running 10 ms\n");
}

}  // namespace
}  // namespace ovra::extra
