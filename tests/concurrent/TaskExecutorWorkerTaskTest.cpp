#include <ovra/concurrent/TaskExecutorWorker.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerTest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

using TaskExecutorWorkerTaskTest = WorkerTest;

TEST_F(TaskExecutorWorkerTaskTest, RunsWhatIsQueuedBeforeAndAfterItsStart) {
    auto const before = add(succeed());
    start();
    before->waitForCompletion();
    auto const after = add(give(Executable::FAILURE));
    after->waitForCompletion();

    EXPECT_EQ(before->getResult(), Executable::SUCCESS);
    EXPECT_EQ(after->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorWorkerTaskTest, RunsEverythingOnOneThreadOfItsOwn) {
    std::vector<std::thread::id> threads;
    auto const note = [&threads] { threads.push_back(std::this_thread::get_id()); };
    auto const task = std::make_shared<SubmittedTask>(
        [&] {
            note();
            return threads.size() < 3 ? Executable::REPEAT : Executable::SUCCESS;
        },
        NORMAL, [&](std::shared_ptr<Task> const&) { note(); }, "work");
    start();
    queue->addTask(task);
    run([&] {
        note();
        return Executable::SUCCESS;
    });

    ASSERT_EQ(threads.size(), 5u);
    EXPECT_THAT(threads, ::testing::Each(threads.front()));
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST_F(TaskExecutorWorkerTaskTest, CallsBackAfterTheWaiterIsReleased) {
    test::Gate waited;
    test::Gate calledBack;
    Executable::State stateThen = Executable::UNSCHEDULED;
    std::shared_ptr<TaskHandle> handle;
    handle = queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const&) {
            waited.wait();
            stateThen = handle->getState();
            calledBack.open();
        },
        "work"));
    start();

    handle->waitForCompletion();
    EXPECT_FALSE(calledBack.isOpen());
    waited.open();
    calledBack.wait();

    EXPECT_EQ(stateThen, Executable::DONE);
}

TEST_F(TaskExecutorWorkerTaskTest, CallsBackOnceWhateverTheResult) {
    for (int const result : {1, 2, 3, 4, 0}) {
        std::atomic<int> calls{0};
        auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
            give(result), NORMAL, [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
        if (!worker) {
            start();
        }
        handle->waitForCompletion();
        run(succeed());

        EXPECT_EQ(calls, 1) << result;
        EXPECT_EQ(std::int32_t{handle->getResult()}, result);
    }
}

TEST_F(TaskExecutorWorkerTaskTest, CallsBackAfterAnException) {
    std::atomic<int> calls{0};
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        []() -> Executable::Result { throw 42; }, NORMAL,
        [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorWorkerTaskTest, CallsBackForATaskCancelledWhileItRan) {
    std::atomic<int> calls{0};
    std::shared_ptr<TaskHandle> handle;
    handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&handle] {
            handle->cancel();
            return Executable::REPEAT;
        },
        NORMAL, [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorWorkerTaskTest, CallsBackForATaskCancelledAsItStarts) {
    bool ran = false;
    bool calledBack = false;
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&ran] {
            ran = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "work"));
    test::LogRecorder recorder;
    recorder.onLine([&handle](test::LogLine const&) {
        if (handle->getState() == Executable::EXECUTING) {
            handle->cancel();
        }
    });
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_FALSE(ran);
    EXPECT_TRUE(calledBack);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    stop();
}

TEST_F(TaskExecutorWorkerTaskTest, GoesOnAfterACallbackThatThrows) {
    test::LogRecorder recorder;
    start();
    queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [](std::shared_ptr<Task> const&) { throw std::runtime_error("callback"); }, "first"));
    queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, "second"));
    run(succeed());

    EXPECT_EQ(recorder.count("[SubmittedTask::execute():WARNING] Caught exception during running "
                             "of 'first'. (callback)"),
              1);
    EXPECT_EQ(recorder.count("[SubmittedTask::performCallback():WARNING] Caught unknown exception "
                             "during running of 'second'."),
              1);
    stop();
}

TEST_F(TaskExecutorWorkerTaskTest, RepeatingWorkKeepsTheWorkerFromMoreUrgentTasks) {
    std::vector<std::string> order;
    int runs = 0;
    std::shared_ptr<TaskHandle> urgent;
    auto const repeating = add([&] {
        order.emplace_back("repeating");
        if (++runs == 1) {
            urgent = queue->addTask(submission(
                [&order] {
                    order.emplace_back("urgent");
                    return Executable::SUCCESS;
                },
                HIGHEST));
        }
        return runs < 4 ? Executable::REPEAT : Executable::SUCCESS;
    });
    start();
    repeating->waitForCompletion();
    urgent->waitForCompletion();

    EXPECT_THAT(order, ElementsAre("repeating", "repeating", "repeating", "repeating", "urgent"));
}

TEST_F(TaskExecutorWorkerTaskTest, ReleasesTheTaskBeforeItFetchesTheNext) {
    std::atomic<bool> nextWasQueued{false};
    auto* const raw = queue.get();
    add([end = test::atEnd([&nextWasQueued, raw] { nextWasQueued = !raw->isEmpty(); })] {
        return Executable::SUCCESS;
    });
    auto const next = add(succeed());
    start();
    next->waitForCompletion();

    EXPECT_TRUE(nextWasQueued);
}

TEST_F(TaskExecutorWorkerTaskTest, ReleasesTheTaskWithoutWaitingForAnother) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    queue->addTask(std::move(task));
    start();

    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(TaskExecutorWorkerTaskTest, WhatTheWorkDidIsSeenAfterTheWait) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        std::weak_ptr<SubmittedTask> watched;
        std::shared_ptr<TaskHandle> handle;
        {
            auto task = submission([&plain]() -> Executable::Result {
                plain = 1;
                throw std::runtime_error("kept");
            });
            watched = task;
            handle = queue->addTask(std::move(task));
        }
        if (round % 2 == 0) {
            // The wait then finds the task destroyed.
            test::yieldUntil([&watched] { return watched.expired(); });
        }
        handle->waitForCompletion();

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

TEST_F(TaskExecutorWorkerTaskTest, WhatTheWorkDidIsSeenOnceTheStateIsDone) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        auto const handle = add([&plain]() -> Executable::Result {
            plain = 1;
            throw std::runtime_error("kept");
        });

        test::yieldUntil([&handle] { return handle->getState() == Executable::DONE; });

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

TEST_F(TaskExecutorWorkerTaskTest, WhatCancelledWorkDidIsSeenAfterTheWait) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        test::Gate entered;
        std::atomic<bool> cancelled{false};
        std::weak_ptr<SubmittedTask> watched;
        std::shared_ptr<TaskHandle> handle;
        {
            auto task = submission([&]() -> Executable::Result {
                entered.open();
                test::yieldUntil([&] { return cancelled.load(std::memory_order_relaxed); });
                plain = 1;
                throw std::runtime_error("kept");
            });
            watched = task;
            handle = queue->addTask(std::move(task));
        }
        entered.wait();
        handle->cancel();
        cancelled.store(true, std::memory_order_relaxed);
        test::yieldUntil([&watched] { return watched.expired(); });
        handle->waitForCompletion();

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getState(), Executable::CANCELLED);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

}  // namespace
}  // namespace ovra::concurrent
