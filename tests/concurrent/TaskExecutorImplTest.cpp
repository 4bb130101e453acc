#include <ovra/concurrent/TaskExecutorImpl.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerLog.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

static_assert(std::is_abstract_v<TaskExecutor>);
static_assert(std::has_virtual_destructor_v<TaskExecutor>);
static_assert(sizeof(TaskExecutor) == sizeof(void*), "no data");
static_assert(std::is_convertible_v<TaskExecutorImpl*, TaskExecutor*>);
static_assert(!std::is_copy_constructible_v<TaskExecutorImpl>);
static_assert(!std::is_move_constructible_v<TaskExecutorImpl>);

using SubmitTask = std::shared_ptr<TaskHandle> (TaskExecutor::*)(std::shared_ptr<Task> const&,
                                                                 TaskPriority, Callback const&);
using SubmitFunction = std::shared_ptr<TaskHandle> (TaskExecutor::*)(Work const&, TaskPriority,
                                                                     Callback const&, char const*);

using TaskExecutorImplTest = ExecutorTest;

// --- workers

struct WorkerCount {
    unsigned int asked;
    int started;
};

void PrintTo(WorkerCount const& row, std::ostream* out) {
    *out << row.asked;
}

class WorkerCountTest : public ExecutorTest, public ::testing::WithParamInterface<WorkerCount> {};

TEST_P(WorkerCountTest, IsAtMostTwelve) {
    test::LogRecorder recorder;
    {
        auto const executor = makeExecutor(GetParam().asked);
        recorder.waitFor(STARTING, GetParam().started);
    }

    EXPECT_EQ(recorder.count(STARTING), GetParam().started);
    EXPECT_EQ(recorder.count(TERMINATING), GetParam().started);
}

INSTANTIATE_TEST_SUITE_P(TaskExecutorImplTest, WorkerCountTest,
                         ::testing::Values(WorkerCount{0, 0}, WorkerCount{1, 1}, WorkerCount{2, 2},
                                           WorkerCount{11, 11}, WorkerCount{12, 12},
                                           WorkerCount{13, 12}, WorkerCount{100, 12},
                                           WorkerCount{UINT_MAX, 12},
                                           WorkerCount{0x80000000u, 12}));

TEST_F(TaskExecutorImplTest, AllWorkersRunAtOnce) {
    constexpr int WORKERS = 12;
    auto const executor = makeExecutor(WORKERS);
    test::Gate together(WORKERS);
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::vector<std::shared_ptr<TaskHandle>> handles;
    for (int i = 0; i < WORKERS; ++i) {
        handles.push_back(executor->submitTask(
            [&] {
                {
                    std::lock_guard<std::mutex> const lock(mutex);
                    threads.insert(std::this_thread::get_id());
                }
                together.open();
                together.wait();
                return Executable::SUCCESS;
            },
            NORMAL, {}, "work"));
    }
    for (auto const& handle : handles) {
        handle->waitForCompletion();
    }

    EXPECT_EQ(threads.size(), std::size_t{WORKERS});
}

TEST_F(TaskExecutorImplTest, WithoutWorkersQueuesAndNeverRuns) {
    std::shared_ptr<TaskHandle> handle;
    std::atomic<bool> ran{false};
    {
        auto const executor = makeExecutor(0);
        handle = executor->submitTask(
            [&ran] {
                ran = true;
                return Executable::SUCCESS;
            },
            HIGHEST, {}, "work");
        ASSERT_NE(handle, nullptr);
        EXPECT_FALSE(executor->isIdle());
    }

    EXPECT_FALSE(ran);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_TRUE(queue->isClosed());
}

TEST_F(TaskExecutorImplTest, ServesAQueueThatIsAlreadyFilled) {
    auto const handle = queue->addTask(submission());

    auto const executor = makeExecutor(1);
    handle->waitForCompletion();

    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(TaskExecutorImplTest, SharesItsQueue) {
    {
        auto const executor = makeExecutor(0);
        EXPECT_EQ(queue.use_count(), 2);
    }
    EXPECT_EQ(queue.use_count(), 1);
}

TEST_F(TaskExecutorImplTest, WorkersDoNotKeepTheQueueOnceTheExecutorIsDestroyed) {
    std::weak_ptr<SubmittedTasksQueue> const watched = queue;
    auto executor = makeExecutor(3);
    queue.reset();
    EXPECT_FALSE(watched.expired());

    executor.reset();

    EXPECT_TRUE(watched.expired());
}

TEST_F(TaskExecutorImplTest, WithoutAQueueRefusesEverything) {
    TaskExecutorImpl executor(3, nullptr);

    EXPECT_EQ(executor.submitTask(succeed(), NORMAL, {}, "work"), nullptr);
    EXPECT_EQ(executor.addSubmittedTaskToQueue(submission()), nullptr);
    EXPECT_TRUE(executor.isIdle());
}

// --- shutting down

TEST_F(TaskExecutorImplTest, DestructionFinishesWhatRunsAndDropsWhatIsQueued) {
    auto executor = makeExecutor(1);
    test::Gate entered;
    test::Gate dropped;
    std::atomic<bool> workEnded{false};
    std::atomic<bool> calledBack{false};
    std::atomic<bool> queuedTouched{false};
    auto const running = executor->submitTask(
        [&] {
            entered.open();
            dropped.wait();  // So the destructor is under way.
            workEnded = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "running");
    entered.wait();
    auto const queued = executor->submitTask(
        [&queuedTouched, end = test::atEnd([&dropped] { dropped.open(); })] {
            queuedTouched = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&queuedTouched](std::shared_ptr<Task> const&) { queuedTouched = true; }, "queued");

    executor.reset();

    EXPECT_TRUE(workEnded);
    EXPECT_TRUE(calledBack);
    EXPECT_EQ(running->getState(), Executable::DONE);
    EXPECT_FALSE(queuedTouched);
    EXPECT_EQ(queued->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(queued->getResult(), Executable::NO_RESULT);
    EXPECT_TRUE(queue->isClosed());
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(TaskExecutorImplTest, DestructionWaitsForEveryWorker) {
    constexpr int WORKERS = 4;
    auto executor = makeExecutor(WORKERS);
    test::Gate entered(WORKERS);
    test::Gate dropped;
    std::atomic<int> callbacks{0};
    for (int i = 0; i < WORKERS; ++i) {
        executor->submitTask(
            [&] {
                entered.open();
                dropped.wait();
                return Executable::SUCCESS;
            },
            NORMAL, [&callbacks](std::shared_ptr<Task> const&) { ++callbacks; }, "running");
    }
    entered.wait();
    executor->submitTask(
        [end = test::atEnd([&dropped] { dropped.open(); })] { return Executable::SUCCESS; }, NORMAL,
        {}, "queued");

    executor.reset();

    EXPECT_EQ(callbacks, WORKERS);
}

TEST_F(TaskExecutorImplTest, DestructionWakesSleepingWorkers) {
    test::LogRecorder recorder;
    {
        auto const executor = makeExecutor(5);
        recorder.waitFor(STARTING, 5);
        executor->submitTask(succeed(), NORMAL, {}, "work")->waitForCompletion();
    }

    EXPECT_EQ(recorder.count(TERMINATING), 5);
    EXPECT_EQ(recorder.texts().back(), TERMINATING);
}

TEST_F(TaskExecutorImplTest, TaskSubmittedWhileItIsDestroyedIsRefused) {
    auto executor = makeExecutor(1);
    auto* const raw = executor.get();
    test::Gate entered;
    test::Gate dropped;
    std::shared_ptr<TaskHandle> late;
    bool triedLate = false;
    executor->submitTask(
        [&] {
            entered.open();
            dropped.wait();
            late = raw->submitTask(succeed(), NORMAL, {}, "late");
            triedLate = true;
            return Executable::SUCCESS;
        },
        NORMAL, {}, "running");
    entered.wait();
    executor->submitTask(
        [end = test::atEnd([&dropped] { dropped.open(); })] { return Executable::SUCCESS; }, NORMAL,
        {}, "queued");

    executor.reset();

    EXPECT_TRUE(triedLate);
    EXPECT_EQ(late, nullptr);
}

TEST_F(TaskExecutorImplTest, WhatADroppedTaskDestroysMayUseTheExecutor) {
    auto executor = makeExecutor(0);
    auto* const raw = executor.get();
    std::vector<std::string> seen;
    executor->submitTask([end = test::atEnd([&seen, raw] {
                              seen.emplace_back(raw->isIdle() ? "idle" : "busy");
                              seen.emplace_back(raw->submitTask(succeed(), NORMAL, {}, "late")
                                                    ? "taken"
                                                    : "refused");
                          })] { return Executable::SUCCESS; },
                         NORMAL, {}, "queued");

    executor.reset();

    EXPECT_THAT(seen, ElementsAre("idle", "refused"));
}

TEST_F(TaskExecutorImplTest, OfTwoExecutorsOnOneQueueTheFirstDestroyedClosesIt) {
    auto first = makeExecutor(1);
    auto const second = makeExecutor(1);
    auto const handle = second->submitTask(succeed(), NORMAL, {}, "work");
    handle->waitForCompletion();

    first.reset();

    EXPECT_EQ(second->submitTask(succeed(), NORMAL, {}, "work"), nullptr);
}

TEST_F(TaskExecutorImplTest, HandlesOutliveTheExecutor) {
    std::shared_ptr<TaskHandle> handle;
    {
        auto const executor = makeExecutor(2);
        handle = executor->submitTask(give(Executable::FAILURE), NORMAL, {}, "work");
        handle->waitForCompletion();
    }

    handle->cancel();
    handle->updatePriority(HIGH);
    handle->waitForCompletion();
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorImplTest, ReleasingTheLastReferenceOnItsOwnWorkerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            test::LogRecorder recorder(log::ERROR);
            recorder.onLine(
                [](test::LogLine const& line) { std::fputs(line.text.c_str(), stderr); });
            auto executor = makeExecutor(1);
            test::Gate released;
            auto const handle = executor->submitTask(
                [&released, held = executor]() mutable {
                    released.wait();
                    held.reset();
                    return Executable::SUCCESS;
                },
                NORMAL, {}, "last");
            executor.reset();
            released.open();
            handle->waitForCompletion();
        },
        ::testing::KilledBySignal(SIGABRT),
        "~TaskExecutorWorker\\(\\):ERROR\\] Worker thread join failed due to '.+'!");
}

TEST_F(TaskExecutorImplTest, ReleasingTheLastReferenceInACallbackEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto executor = makeExecutor(1);
            test::Gate released;
            test::Gate never;
            executor->submitTask(
                succeed(), NORMAL,
                [&released, &executor](std::shared_ptr<Task> const&) {
                    released.wait();
                    executor.reset();
                },
                "last");
            released.open();
            never.wait();
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(TaskExecutorImplTest, ForkedChildHasNoWorkers) {
    auto const threads = [] {
        std::filesystem::directory_iterator const tasks("/proc/self/task");
        return std::distance(tasks, std::filesystem::directory_iterator());
    };
    auto const threadsBefore = threads();  // An emulator has one of its own, and so has the child.
    auto const executor = makeExecutor(2);
    // Inside their work, no worker holds a lock that the child would inherit.
    Occupation const first(*executor);
    Occupation const second(*executor);

    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(test::deadlineSeconds());
        auto const handle = executor->submitTask(succeed(), HIGHEST, {}, "child's");
        bool const isQueued = handle != nullptr && !executor->isIdle() &&
                              handle->getState() == Executable::UNSCHEDULED;
        _exit((isQueued ? 0 : 1) + (threads() <= threadsBefore ? 0 : 2));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: not queued, 2: not alone";
    EXPECT_TRUE(executor->isIdle());
}

TEST_F(TaskExecutorImplTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(static_cast<SubmitTask>(&TaskExecutor::submitTask)), 2u);
    EXPECT_EQ(test::virtualSlot(static_cast<SubmitFunction>(&TaskExecutor::submitTask)), 3u);
    EXPECT_EQ(test::virtualSlot(&TaskExecutor::isIdle), 4u);
    EXPECT_EQ(test::virtualSlotCount("TaskExecutor"), 5u);
    EXPECT_EQ(test::virtualSlotCount("TaskExecutorImpl"), 5u);
}

}  // namespace
}  // namespace ovra::concurrent
