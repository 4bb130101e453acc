#include <ovra/concurrent/TaskExecutorWorker.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerLog.h>
#include <tests/concurrent/WorkerTest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

using TaskExecutorWorkerCancelTest = WorkerTest;

TEST_F(TaskExecutorWorkerCancelTest, CancelledBeforeStartNeverRuns) {
    std::atomic<bool> ran{false};
    std::atomic<bool> calledBack{false};
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&ran] {
            ran = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "work"));
    handle->cancel();
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    test::LogRecorder recorder;
    start();

    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_FALSE(ran);
    EXPECT_FALSE(calledBack);
    EXPECT_EQ(recorder.count("[SubmittedTask::execute():INFO] Moving current task 'work' into "
                             "EXECUTING state."),
              1)
        << "that of the second task";
    stop();
}

TEST_F(TaskExecutorWorkerCancelTest, CancelledTaskCompletesItsFuture) {
    auto const task = submission();
    auto future = task->getFuture();
    queue->addTask(task)->cancel();
    start();

    EXPECT_TRUE(future.get());
    EXPECT_EQ(task->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorWorkerCancelTest, CancelledTaskGetsItsResultBeforeItsWaiterIsReleased) {
    class Observed : public SubmittedTask {
    public:
        Observed() : SubmittedTask(succeed(), NORMAL, Callback(), "observed") {}
        void setState(Executable::State newState) override {
            events.push_back(std::string("state ") + taskStateToName(newState));
            SubmittedTask::setState(newState);
        }
        void setResult(Executable::Result newResult) override {
            events.push_back("result " + std::to_string(newResult));
            released = future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            SubmittedTask::setResult(newResult);
        }
        std::vector<std::string> events;
        std::future<bool> future = getFuture();
        bool released = true;
    };
    auto const task = std::make_shared<Observed>();
    queue->addTask(task)->cancel();
    start();
    task->future.wait();

    EXPECT_THAT(task->events, ElementsAre("state CANCELLED", "result 4"));
    EXPECT_FALSE(task->released);
}

TEST_F(TaskExecutorWorkerCancelTest, SkippedTaskIsHeldUntilTheNextIsFetched) {
    std::atomic<bool> nextWasFetched{false};
    auto* const raw = queue.get();
    add([end = test::atEnd([&nextWasFetched, raw] { nextWasFetched = raw->isEmpty(); })] {
        return Executable::SUCCESS;
    })->cancel();
    auto const next = add(succeed());
    start();
    next->waitForCompletion();

    EXPECT_TRUE(nextWasFetched);
}

TEST_F(TaskExecutorWorkerCancelTest, SkippedTaskIsReleasedByAnEmptyFetch) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    queue->addTask(std::move(task))->cancel();
    start();

    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(TaskExecutorWorkerCancelTest, SkippedTaskIsHeldByAWorkerThatFetchesNoMore) {
    class Terminating : public SubmittedTask {
    public:
        Terminating() : SubmittedTask(succeed(), NORMAL, Callback(), "terminating") {}
        void setResult(Executable::Result newResult) override {
            SubmittedTask::setResult(newResult);
            worker->terminate();
        }
        TaskExecutorWorker* worker = nullptr;
    };
    auto const task = std::make_shared<Terminating>();
    {
        TaskExecutorWorker idle(queue);
        task->worker = &idle;
        queue->addTask(task)->cancel();

        idle.run();

        EXPECT_EQ(task.use_count(), 2);
    }
    EXPECT_EQ(task.use_count(), 1);
}

// Stops the worker while it ends a cancelled task.
class EndingTask : public SubmittedTask {
public:
    EndingTask() : SubmittedTask(succeed(), NORMAL, Callback(), "ending") {}
    void setResult(Executable::Result newResult) override {
        ++ended;
        SubmittedTask::setResult(newResult);
        entered.open();
        release.wait();
    }
    std::atomic<int> ended{0};
    test::Gate entered;
    test::Gate release;
};

TEST_F(TaskExecutorWorkerCancelTest, SkippedTaskIsReleasedWhenTheQueueIsDestroyed) {
    test::LogRecorder recorder;
    auto task = std::make_shared<EndingTask>();
    std::weak_ptr<EndingTask> const watched = task;
    auto* const raw = task.get();
    auto const handle = queue->addTask(task);
    auto future = task->getFuture();
    handle->cancel();
    start();
    raw->entered.wait();
    std::weak_ptr<SubmittedTasksQueue> const watchedQueue = queue;
    queue.reset();
    EXPECT_TRUE(watchedQueue.expired());

    task->release.open();
    EXPECT_TRUE(future.get());
    task.reset();
    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_EQ(recorder.count(TERMINATING), 0) << "it waits to be terminated";
    worker->terminate();
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_EQ(recorder.count(TERMINATING), 1);
    worker.reset();
}

TEST_F(TaskExecutorWorkerCancelTest, SkippedTaskEndsOnceWhenTheQueueIsDestroyed) {
    auto const task = std::make_shared<EndingTask>();
    queue->addTask(task)->cancel();
    start();
    task->entered.wait();
    queue.reset();
    task->release.open();

    test::yieldUntil([&task] { return task.use_count() == 1; });

    EXPECT_EQ(task->ended, 1);
}

TEST_F(TaskExecutorWorkerCancelTest, WithoutAQueueWaitsToBeTerminated) {
    test::LogRecorder recorder;
    TaskExecutorWorker orphan(nullptr);
    orphan.start();
    recorder.waitFor(STARTING);

    orphan.terminate();

    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING));
}

}  // namespace
}  // namespace ovra::concurrent
