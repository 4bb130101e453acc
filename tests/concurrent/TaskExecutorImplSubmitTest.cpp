#include <ovra/concurrent/TaskExecutorImpl.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerLog.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using TaskExecutorImplSubmitTest = ExecutorTest;

// --- submitting

TEST_F(TaskExecutorImplSubmitTest, RunsATaskAndCallsBackWithIt) {
    auto const executor = makeExecutor(1);
    std::atomic<int> runs{0};
    auto const task = std::make_shared<NamedTask>([&runs] {
        ++runs;
        return Executable::FAILURE;
    });
    std::shared_ptr<Task> given;
    test::Gate calledBack;

    auto const handle = executor->submitTask(task, HIGH, [&](std::shared_ptr<Task> const& ended) {
        given = ended;
        calledBack.open();
    });
    ASSERT_NE(handle, nullptr);
    handle->waitForCompletion();
    calledBack.wait();

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(given, task);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorImplSubmitTest, RunsAFunctionAndCallsBackWithATaskOfItsName) {
    auto const executor = makeExecutor(1);
    char const name[] = "function";
    char const* given = nullptr;
    test::Gate calledBack;

    auto const handle = executor->submitTask(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const& ended) {
            given = ended->name();
            calledBack.open();
        },
        name);
    handle->waitForCompletion();
    calledBack.wait();

    EXPECT_EQ(given, name);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(TaskExecutorImplSubmitTest, PassesANullNameThrough) {
    auto const executor = makeExecutor(1);
    char const* given = "before";
    test::Gate calledBack;

    executor->submitTask(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const& ended) {
            given = ended->name();
            calledBack.open();
        },
        nullptr);
    calledBack.wait();

    EXPECT_EQ(given, nullptr);
}

TEST_F(TaskExecutorImplSubmitTest, RunsTheFunctionAsItWasWhenSubmitted) {
    auto const executor = makeExecutor(0);
    std::string ran;
    Work work = [&ran] {
        ran += "first";
        return Executable::SUCCESS;
    };
    std::string called;
    Callback callback = [&called](std::shared_ptr<Task> const&) { called += "first"; };
    executor->submitTask(work, NORMAL, callback, "work");
    work = [&ran] {
        ran += "second";
        return Executable::SUCCESS;
    };
    callback = [&called](std::shared_ptr<Task> const&) { called += "second"; };

    auto const task = queue->getNextTask();
    task->execute();
    task->performCallback();

    EXPECT_EQ(ran, "first");
    EXPECT_EQ(called, "first");
}

TEST_F(TaskExecutorImplSubmitTest, GivesTheSubmissionItsPriority) {
    auto const executor = makeExecutor(0);
    for (int const value : {1, 2, 3, 4, 0, -1, 5}) {
        auto const priority = static_cast<TaskPriority>(value);
        executor->submitTask(std::make_shared<NamedTask>(), priority, {});
        auto const ofTask = queue->getNextTask();
        executor->submitTask(succeed(), priority, {}, "work");
        auto const ofFunction = queue->getNextTask();

        EXPECT_EQ(ofTask->getPriority(), priority);
        EXPECT_EQ(ofFunction->getPriority(), priority);
        EXPECT_EQ(ofFunction->getRank(), submittedTaskPriorityToInitialRank(priority));
    }
}

TEST_F(TaskExecutorImplSubmitTest, RefusesATaskWithoutWorkAndCallback) {
    test::LogRecorder recorder;
    auto const executor = makeExecutor(0);
    std::int32_t const before = submission()->getUniqueIndex();

    EXPECT_EQ(executor->submitTask(std::shared_ptr<Task>(), NORMAL, Callback()), nullptr);
    EXPECT_EQ(executor->submitTask(Work(), NORMAL, Callback(), "work"), nullptr);

    EXPECT_TRUE(executor->isIdle());
    EXPECT_THAT(recorder.texts(), IsEmpty());
    EXPECT_EQ(submission()->getUniqueIndex(), before - 1);
}

TEST_F(TaskExecutorImplSubmitTest, AcceptsACallbackWithoutATask) {
    auto const executor = makeExecutor(1);
    test::Gate calledBack;
    bool wasNull = false;
    auto const handle = executor->submitTask(std::shared_ptr<Task>(), NORMAL,
                                             [&](std::shared_ptr<Task> const& task) {
                                                 wasNull = task == nullptr;
                                                 calledBack.open();
                                             });
    ASSERT_NE(handle, nullptr);
    // Cancelled too early, it would never be called back.
    test::yieldUntil([&handle] { return handle->getState() == Executable::EXECUTING; });
    handle->cancel();
    calledBack.wait();

    EXPECT_TRUE(wasNull);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorImplSubmitTest, AcceptsACallbackWithoutAFunction) {
    auto const executor = makeExecutor(1);
    test::Gate calledBack;
    auto const handle = executor->submitTask(
        Work(), NORMAL, [&](std::shared_ptr<Task> const&) { calledBack.open(); }, "work");
    ASSERT_NE(handle, nullptr);
    handle->waitForCompletion();
    calledBack.wait();

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    ASSERT_NE(handle->getException(), nullptr);
    EXPECT_THROW(std::rethrow_exception(handle->getException()), std::bad_function_call);
}

TEST_F(TaskExecutorImplSubmitTest, RefusesEverythingOnceItsQueueIsClosed) {
    test::LogRecorder recorder;
    auto const executor = makeExecutor(1);
    queue->close();
    recorder.waitFor(TERMINATING);
    auto const task = submission();

    EXPECT_EQ(executor->submitTask(succeed(), NORMAL, {}, "work"), nullptr);
    EXPECT_EQ(executor->submitTask(std::make_shared<NamedTask>(), NORMAL, {}), nullptr);
    EXPECT_EQ(executor->addSubmittedTaskToQueue(task), nullptr);

    EXPECT_TRUE(executor->isIdle());
    EXPECT_EQ(task.use_count(), 1);
    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING));
}

TEST_F(TaskExecutorImplSubmitTest, WhatAClosedQueueRefusesWasASubmission) {
    auto const executor = makeExecutor(0);
    queue->close();
    test::LogRecorder recorder;
    std::int32_t const before = submission()->getUniqueIndex();
    Callback const callback = [](std::shared_ptr<Task> const&) {};

    EXPECT_EQ(executor->submitTask(succeed(), NORMAL, {}, "work"), nullptr);
    EXPECT_EQ(executor->submitTask(std::shared_ptr<Task>(), NORMAL, callback), nullptr);

    EXPECT_EQ(submission()->getUniqueIndex(), before - 3);
    EXPECT_THAT(recorder.texts(),
                ElementsAre("[SubmittedTask::SubmittedTask:WARNING] Given a null pointer for a "
                            "task."));
}

TEST_F(TaskExecutorImplSubmitTest, QueuesASubmissionOfTheCaller) {
    auto const executor = makeExecutor(0);
    auto const task = submission();

    auto const handle = executor->addSubmittedTaskToQueue(task);

    EXPECT_EQ(task->getHandle().lock(), handle);
    EXPECT_EQ(task.use_count(), 2);
    EXPECT_EQ(queue->getNextTask(), task);
}

TEST_F(TaskExecutorImplSubmitTest, IsIdleWhileWorkersRunButNothingIsQueued) {
    auto const executor = makeExecutor(1);
    EXPECT_TRUE(executor->isIdle());
    Occupation occupation(*executor);
    EXPECT_TRUE(executor->isIdle());

    auto const queued = executor->submitTask(succeed(), NORMAL, {}, "queued");
    EXPECT_FALSE(executor->isIdle());
    queued->cancel();
    EXPECT_FALSE(executor->isIdle()) << "a cancelled task stays queued";

    occupation.release();
    queued->waitForCompletion();
    EXPECT_TRUE(executor->isIdle());
}

// --- order

TEST_F(TaskExecutorImplSubmitTest, RunsTheMostUrgentFirst) {
    std::string order;
    auto const executor = makeExecutor(1);
    auto const note = [&order](char letter) -> Work {
        return [&order, letter] {
            order += letter;
            return Executable::SUCCESS;
        };
    };
    std::vector<std::shared_ptr<TaskHandle>> handles;
    {
        Occupation const occupation(*executor);
        handles.push_back(executor->submitTask(note('l'), LOW, {}, "low"));
        handles.push_back(executor->submitTask(note('n'), NORMAL, {}, "normal"));
        handles.push_back(executor->submitTask(note('N'), NORMAL, {}, "normal too"));
        handles.push_back(executor->submitTask(note('!'), HIGHEST, {}, "highest"));
        handles.push_back(executor->submitTask(note('h'), HIGH, {}, "high"));
        handles.push_back(executor->submitTask(note('?'), LOW, {}, "raised"));
        handles.back()->updatePriority(HIGHEST);
    }
    for (auto const& handle : handles) {
        handle->waitForCompletion();
    }

    EXPECT_EQ(order, "!?hnNl");
}

TEST_F(TaskExecutorImplSubmitTest, PriorityOfARunningTaskHasNoEffect) {
    auto const executor = makeExecutor(1);
    Occupation occupation(*executor);
    auto const other = executor->submitTask(succeed(), NORMAL, {}, "other");

    occupation.handle->updatePriority(LOW);
    EXPECT_EQ(occupation.handle->getState(), Executable::EXECUTING);
    occupation.release();
    other->waitForCompletion();

    EXPECT_EQ(occupation.handle->getState(), Executable::DONE);
}

TEST_F(TaskExecutorImplSubmitTest, CancelledWhileQueuedNeverRuns) {
    auto const executor = makeExecutor(1);
    std::atomic<bool> touched{false};
    std::shared_ptr<TaskHandle> handle;
    std::shared_ptr<TaskHandle> last;
    {
        Occupation const occupation(*executor);
        handle = executor->submitTask(
            [&touched] {
                touched = true;
                return Executable::SUCCESS;
            },
            NORMAL, [&touched](std::shared_ptr<Task> const&) { touched = true; }, "cancelled");
        last = executor->submitTask(succeed(), LOW, {}, "last");
        handle->cancel();
        EXPECT_TRUE(handle->isDone());
        EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    }
    handle->waitForCompletion();
    last->waitForCompletion();

    EXPECT_FALSE(touched);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorImplSubmitTest, RunningTaskIsNotInterruptedByItsCancellation) {
    auto const executor = makeExecutor(1);
    Occupation occupation(*executor);
    occupation.handle->cancel();
    EXPECT_EQ(occupation.handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(occupation.handle->getResult(), Executable::NO_RESULT);

    occupation.release();
    occupation.handle->waitForCompletion();

    EXPECT_EQ(occupation.handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(occupation.handle->getResult(), Executable::SUCCESS);
}

TEST_F(TaskExecutorImplSubmitTest, TasksAndCallbacksMaySubmit) {
    auto const executor = makeExecutor(1);
    std::shared_ptr<TaskHandle> fromWork;
    std::shared_ptr<TaskHandle> fromCallback;
    test::Gate calledBack;
    executor->submitTask(
        [&] {
            fromWork = executor->submitTask(succeed(), NORMAL, {}, "inner");
            return Executable::SUCCESS;
        },
        NORMAL,
        [&](std::shared_ptr<Task> const&) {
            fromCallback = executor->submitTask(succeed(), NORMAL, {}, "inner");
            EXPECT_FALSE(executor->isIdle());
            calledBack.open();
        },
        "outer");
    calledBack.wait();
    fromWork->waitForCompletion();
    fromCallback->waitForCompletion();

    EXPECT_EQ(fromWork->getResult(), Executable::SUCCESS);
    EXPECT_EQ(fromCallback->getResult(), Executable::SUCCESS);
}

}  // namespace
}  // namespace ovra::concurrent
