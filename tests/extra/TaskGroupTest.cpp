#include <ovra/extra/TaskGroup.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/WorkSupport.h>
#include <tests/fs/Allocations.h>
#include <tests/support/LogRecorder.h>

namespace ovra::extra {
namespace {

using concurrent::Callback;
using concurrent::Executable;
using concurrent::NORMAL;
using concurrent::succeed;
using concurrent::Task;
using concurrent::TaskHandle;
using ovra::test::Gate;
using std::chrono::milliseconds;
using test::ManualExecutor;
using test::RecordingExecutor;

class TaskGroupTest : public concurrent::ExecutorTest {
protected:
    std::shared_ptr<ManualExecutor> const manual = std::make_shared<ManualExecutor>();
};

TEST_F(TaskGroupTest, CountsATaskUntilItsCallbackHasReturned) {
    TaskGroup group(manual);
    EXPECT_EQ(group.pending(), 0u);
    std::size_t duringWork = 0;
    std::size_t duringCallback = 0;
    group.submitTask(
        [&] {
            duringWork = group.pending();
            return Executable::SUCCESS;
        },
        NORMAL, [&](auto const&) { duringCallback = group.pending(); }, nullptr);
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_EQ(group.pending(), 2u);
    manual->runNext();
    EXPECT_EQ(duringWork, 2u);
    EXPECT_EQ(duringCallback, 2u);
    EXPECT_EQ(group.pending(), 1u);
    manual->runNext();
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupTest, CountsDownAlthoughTheCallbackThrows) {
    ovra::test::LogRecorder const recorder;
    TaskGroup group(manual);
    group.submitTask(
        succeed(), NORMAL, [](auto const&) { throw std::runtime_error("thrown"); }, "name");
    manual->runNext();
    EXPECT_EQ(group.pending(), 0u);
    EXPECT_EQ(recorder.count("[SubmittedTask::execute():WARNING] Caught exception during running "
                             "of 'name'. (thrown)"),
              1);
}

TEST_F(TaskGroupTest, CountsDownAlthoughTheExecutorKeepsTheCallback) {
    auto const keeping = std::make_shared<RecordingExecutor>();
    TaskGroup group(keeping);
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    keeping->callback(nullptr);
    EXPECT_EQ(group.pending(), 0u);
    group.submitTask(
        succeed(), NORMAL, [](auto const&) { throw std::runtime_error("thrown"); }, nullptr);
    EXPECT_EQ(group.pending(), 1u);
    EXPECT_THROW(keeping->callback(nullptr), std::runtime_error);
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupTest, PassesEverythingOn) {
    auto const recording = std::make_shared<RecordingExecutor>();
    TaskGroup group(recording);
    auto const task = std::make_shared<concurrent::NamedTask>();
    std::shared_ptr<Task> calledBack;
    auto const handle = group.submitTask(task, concurrent::HIGH, [&](std::shared_ptr<Task> given) {
        calledBack = std::move(given);
    });
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(recording->task, task);
    EXPECT_EQ(recording->priority, concurrent::HIGH);
    recording->callback(task);
    EXPECT_EQ(calledBack, task);

    char const name[] = "name";
    group.submitTask(
        concurrent::give(77), concurrent::LOW,
        [&](std::shared_ptr<Task> given) { calledBack = std::move(given); }, name);
    EXPECT_EQ(recording->function(), 77);
    EXPECT_EQ(recording->priority, concurrent::LOW);
    EXPECT_EQ(recording->name, name);
    recording->callback(nullptr);
    EXPECT_EQ(calledBack, nullptr);
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_EQ(recording->name, nullptr);
}

TEST_F(TaskGroupTest, KeepsNothingOfATaskThatHasEnded) {
    TaskGroup group(manual);
    auto work = std::make_shared<int>(1);
    auto callback = std::make_shared<int>(2);
    std::weak_ptr<int> const seen[] = {work, callback};
    std::weak_ptr<TaskHandle> const handle =
        group.submitTask([work = std::move(work)] { return Executable::SUCCESS; }, NORMAL,
                         [callback = std::move(callback)](auto const&) {}, nullptr);
    EXPECT_FALSE(handle.expired());
    EXPECT_FALSE(seen[0].expired() || seen[1].expired());
    manual->runNext();
    EXPECT_TRUE(handle.expired());
    EXPECT_TRUE(seen[0].expired() && seen[1].expired());
    // Ended before its submission has returned.
    struct Direct : RecordingExecutor {
        std::shared_ptr<TaskHandle> submitTask(std::shared_ptr<Task> const& given,
                                               concurrent::TaskPriority,
                                               Callback const& givenCallback) override {
            givenCallback(given);
            return std::make_shared<TaskHandle>(nullptr);
        }
        using RecordingExecutor::submitTask;
    };
    TaskGroup direct(std::make_shared<Direct>());
    std::weak_ptr<TaskHandle> const ended =
        direct.submitTask(std::make_shared<concurrent::NamedTask>(), NORMAL, {});
    EXPECT_TRUE(ended.expired());
    EXPECT_EQ(direct.pending(), 0u);
}

TEST_F(TaskGroupTest, CountsANullTaskWithACallback) {
    TaskGroup group(manual);
    EXPECT_NE(group.submitTask(std::shared_ptr<Task>(), NORMAL, [](auto const&) {}), nullptr);
    EXPECT_EQ(group.pending(), 1u);
    group.cancelAll();
    EXPECT_EQ(group.pending(), 1u);
    manual->runNext();
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupTest, WhatIsDroppedCountsDown) {
    auto executor = std::make_shared<ManualExecutor>();
    TaskGroup group(executor);
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    auto const handle = group.submitTask(
        succeed(), NORMAL, [](auto const&) {}, nullptr);
    executor->close();
    EXPECT_EQ(group.pending(), 0u);
    group.wait();
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupTest, RefusalsAndFailuresCountNothing) {
    auto const recording = std::make_shared<RecordingExecutor>();
    TaskGroup group(recording, 1);
    EXPECT_EQ(group.submitTask(std::shared_ptr<Task>(), NORMAL, {}), nullptr);
    EXPECT_EQ(group.submitTask(concurrent::Work(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(recording->submissions, 0);
    recording->refuses = true;
    EXPECT_EQ(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.submitTask(std::make_shared<concurrent::NamedTask>(), NORMAL, {}), nullptr);
    EXPECT_EQ(recording->submissions, 2);
    recording->throws = true;
    EXPECT_THROW(group.submitTask(succeed(), NORMAL, {}, nullptr), std::runtime_error);
    EXPECT_EQ(group.pending(), 0u);
    recording->throws = recording->refuses = false;
    EXPECT_NE(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.pending(), 1u);
}

TEST_F(TaskGroupTest, ANullExecutorRefusesEverything) {
    TaskGroup group(nullptr);
    EXPECT_EQ(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.submitTask(std::make_shared<concurrent::NamedTask>(), NORMAL, {}), nullptr);
    EXPECT_EQ(group.pending(), 0u);
    group.wait();
    group.cancelAll();
}

TEST_F(TaskGroupTest, TheLimitCountsWaitingAndRunning) {
    TaskGroup group(manual, 2);
    bool isRefused = false;
    auto const work = [&] {
        isRefused = group.submitTask(succeed(), NORMAL, {}, nullptr) == nullptr;
        return Executable::SUCCESS;
    };
    EXPECT_NE(group.submitTask(work, NORMAL, {}, nullptr), nullptr);
    EXPECT_NE(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    manual->runNext();
    EXPECT_TRUE(isRefused);
    EXPECT_NE(group.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(group.pending(), 2u);
}

TEST_F(TaskGroupTest, CancelAllNeedsNoHandles) {
    TaskGroup group(manual);
    int runs = 0;
    auto const kept = group.submitTask(succeed(), NORMAL, {}, nullptr);
    group.submitTask(
        [&] {
            ++runs;
            return Executable::SUCCESS;
        },
        NORMAL, {}, nullptr);
    group.cancelAll();
    EXPECT_EQ(kept->getState(), Executable::CANCELLED);
    EXPECT_EQ(group.pending(), 2u);  // Until the executor releases them.
    manual->runAll();
    EXPECT_EQ(group.pending(), 0u);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(kept->getResult(), Executable::ABORTED);
}

TEST_F(TaskGroupTest, CancelAllReachesWhatIsRunningAndLeavesWhatHasEnded) {
    TaskGroup group(manual);
    TaskGroup others(manual);
    auto const other = others.submitTask(succeed(), concurrent::LOW, {}, nullptr);
    auto const first = group.submitTask(succeed(), NORMAL, {}, nullptr);
    manual->runNext();
    int runs = 0;
    auto const repeating = group.submitTask(
        [&] {
            ++runs;
            group.cancelAll();
            return Executable::REPEAT;
        },
        NORMAL, {}, nullptr);
    manual->runNext();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(repeating->getResult(), Executable::ABORTED);
    auto const ending = group.submitTask(
        succeed(), NORMAL, [&](auto const&) { group.cancelAll(); }, nullptr);
    manual->runNext();
    EXPECT_EQ(ending->getState(), Executable::DONE);
    EXPECT_EQ(first->getState(), Executable::DONE);
    EXPECT_EQ(other->getState(), Executable::UNSCHEDULED);
}

TEST_F(TaskGroupTest, WaitReturnsOnceEverythingHasEnded) {
    auto const executor = makeExecutor(2);
    int const rounds = ovra::test::scaled(200);
    for (int round = 0; round < rounds; ++round) {
        TaskGroup group(executor);
        std::atomic<int> called{0};
        for (int i = 0; i < 10; ++i) {
            group.submitTask(
                succeed(), NORMAL, [&](auto const&) { ++called; }, nullptr);
        }
        std::thread second([&] { group.wait(); });
        group.wait();
        EXPECT_EQ(called, 10);
        second.join();
    }
}

TEST_F(TaskGroupTest, WaitForKeepsToItsLimit) {
    TaskGroup group(manual);
    EXPECT_TRUE(group.waitFor(milliseconds(0)));
    EXPECT_TRUE(group.waitFor(milliseconds::min()));
    EXPECT_TRUE(group.waitFor(milliseconds::max()));
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_FALSE(group.waitFor(milliseconds(0)));
    EXPECT_FALSE(group.waitFor(milliseconds(-1)));
    EXPECT_FALSE(group.waitFor(milliseconds::min()));
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(group.waitFor(milliseconds(20)));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(20));
    manual->runAll();
    EXPECT_TRUE(group.waitFor(milliseconds(0)));
}

TEST_F(TaskGroupTest, LongWaitsEndWithTheLastTask) {
    auto const executor = makeExecutor(1);
    for (auto const limit :
         {milliseconds::max(), milliseconds(std::chrono::hours(24 * 365 * 200)),
          milliseconds(std::chrono::hours(24 * 365 * 300)), milliseconds(std::chrono::hours(1))}) {
        TaskGroup group(executor);
        Gate released;
        group.submitTask(
            [&] {
                released.wait();
                return Executable::SUCCESS;
            },
            NORMAL, {}, nullptr);
        std::thread waiting([&] { EXPECT_TRUE(group.waitFor(limit)); });
        released.open();
        waiting.join();
    }
}

TEST_F(TaskGroupTest, DyingCancelsNothingAndWaitsForNothing) {
    Gate released;
    Gate called(2);
    std::atomic<int> runs{0};
    std::vector<std::shared_ptr<TaskHandle>> handles;
    auto const executor = makeExecutor(1);
    {
        TaskGroup group(executor);
        for (int i = 0; i < 2; ++i) {
            handles.push_back(group.submitTask(
                [&] {
                    released.wait();
                    ++runs;
                    return Executable::SUCCESS;
                },
                NORMAL, [&](auto const&) { called.open(); }, nullptr));
        }
        ovra::test::yieldUntil([&] { return handles[0]->getState() == Executable::EXECUTING; });
    }
    EXPECT_EQ(handles[0]->getState(), Executable::EXECUTING);
    EXPECT_EQ(handles[1]->getState(), Executable::UNSCHEDULED);
    released.open();
    called.wait();
    EXPECT_EQ(runs, 2);
}

TEST_F(TaskGroupTest, HoldsTheExecutor) {
    auto executor = std::make_shared<ManualExecutor>();
    std::weak_ptr<ManualExecutor> const seen = executor;
    auto group = std::make_unique<TaskGroup>(std::move(executor));
    group->submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_FALSE(seen.expired());
    group.reset();
    EXPECT_TRUE(seen.expired());  // Nor does a task hold it.
}

TEST_F(TaskGroupTest, ReleasesHandlesWithoutALock) {
    struct Noticing : TaskHandle {
        explicit Noticing(std::function<void()> atEnd)
            : TaskHandle(nullptr), action(std::move(atEnd)) {}
        ~Noticing() override { action(); }
        std::function<void()> action;
    };
    struct NoticingExecutor : RecordingExecutor {
        std::shared_ptr<TaskHandle> submitTask(concurrent::Work const&, concurrent::TaskPriority,
                                               Callback const& given, char const*) override {
            callback = given;
            return std::make_shared<Noticing>(action);
        }
        using RecordingExecutor::submitTask;
        std::function<void()> action;
    };
    auto const noticing = std::make_shared<NoticingExecutor>();
    TaskGroup group(noticing);
    std::size_t seen = 9;
    noticing->action = [&] { seen = group.pending(); };
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_EQ(seen, 9u);
    noticing->callback(nullptr);
    EXPECT_EQ(seen, 0u);
}

TEST_F(TaskGroupTest, ALackOfMemoryChangesNothing) {
    TaskGroup group(manual);
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    bool hasFailed = true;
    for (int allowed = 0; hasFailed; ++allowed) {
        fs::test::Allocations allocations;
        allocations.failAfter(allowed);
        try {
            group.submitTask(
                succeed(), NORMAL, [](auto const&) {}, nullptr);
            hasFailed = allocations.hasFailed();
            EXPECT_FALSE(hasFailed);
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(group.pending(), 1u);
        }
        EXPECT_LT(allowed, 100);
    }
    EXPECT_EQ(group.pending(), 2u);
    fs::test::Allocations allocations;
    allocations.failAfter(0);
    EXPECT_THROW(group.cancelAll(), std::bad_alloc);
}

TEST_F(TaskGroupTest, KeepsErrno) {
    struct Spoiling : ManualExecutor {
        std::shared_ptr<TaskHandle> submitTask(std::shared_ptr<Task> const& task,
                                               concurrent::TaskPriority priority,
                                               Callback const& callback) override {
            errno = EIO;
            return ManualExecutor::submitTask(task, priority, callback);
        }
        std::shared_ptr<TaskHandle> submitTask(concurrent::Work const& work,
                                               concurrent::TaskPriority priority,
                                               Callback const& callback,
                                               char const* name) override {
            errno = EIO;
            return ManualExecutor::submitTask(work, priority, callback, name);
        }
    };
    auto const executor = std::make_shared<Spoiling>();
    TaskGroup group(executor);
    errno = 123;
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_EQ(errno, 123);
    group.submitTask(std::make_shared<concurrent::NamedTask>(), NORMAL, {});
    EXPECT_EQ(errno, 123);
    group.waitFor(milliseconds(1));
    group.cancelAll();
    EXPECT_EQ(errno, 123);
}

}  // namespace
}  // namespace ovra::extra
