#include <ovra/concurrent/TaskHandle.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

char const* const WAITED_TWICE =
    "[SubmittedTask::getFuture():ERROR] A task was waited for, or its future was asked for, a "
    "second time: wait once.";

std::future_errc errorOf(std::function<void()> const& action) {
    try {
        action();
    } catch (std::future_error const& e) {
        return static_cast<std::future_errc>(e.code().value());
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

struct Link {
    char const* name;
    std::shared_ptr<TaskHandle> (*makeHandle)(std::shared_ptr<SubmittedTask> const&);
};

// Made by a queue, which has released the task again.
std::shared_ptr<TaskHandle> unlinkedHandleOfAQueue(std::shared_ptr<SubmittedTask> const& task) {
    SubmittedTasksQueue queue(nullptr);
    auto handle = queue.addTask(task);
    EXPECT_EQ(queue.getNextTask(), task);
    task->setHandle(nullptr);
    return handle;
}

void PrintTo(Link const& link, std::ostream* out) {
    *out << link.name;
}

std::string nameOfLink(::testing::TestParamInfo<Link> const& parameter) {
    return parameter.param.name;
}

class LinkedHandleTest : public test::BoundedTest, public ::testing::WithParamInterface<Link> {
protected:
    static std::shared_ptr<TaskHandle> link(std::shared_ptr<SubmittedTask> const& task) {
        auto handle = GetParam().makeHandle(task);
        task->setHandle(handle);
        return handle;
    }
};

INSTANTIATE_TEST_SUITE_P(TaskHandleTest, LinkedHandleTest,
                         ::testing::Values(Link{"ByProxy",
                                                [](auto const& task) {
                                                    return std::make_shared<TaskHandle>(
                                                        SubmittedTask::provideProxy(task));
                                                }},
                                           Link{"Directly", &unlinkedHandleOfAQueue}),
                         nameOfLink);

TEST_P(LinkedHandleTest, StartsWithTheStateAndResultOfItsTask) {
    auto const task = submission();
    task->setState(Executable::EXECUTING);
    task->setResult(Executable::FAILURE);

    auto const handle = GetParam().makeHandle(task);

    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_EQ(handle->getException(), nullptr);
}

TEST_P(LinkedHandleTest, QueriesDoNotConsultTheTask) {
    auto const task = submission();
    auto const handle = GetParam().makeHandle(task);

    task->setState(Executable::DONE);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_FALSE(handle->isDone());
}

TEST_P(LinkedHandleTest, FollowsItsTaskThroughAnExecution) {
    std::vector<int> seen;
    std::shared_ptr<TaskHandle> handle;
    auto const task = submission([&] {
        seen = {handle->getState(), handle->getResult(), handle->isDone() ? 1 : 0};
        return Executable::SUCCESS;
    });
    handle = link(task);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_FALSE(handle->isDone());

    task->execute();

    EXPECT_THAT(seen, ElementsAre(Executable::EXECUTING, Executable::NO_RESULT, 0));
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_TRUE(handle->isDone());
}

TEST_P(LinkedHandleTest, CancellationShowsAtOnceWhileTheWorkStillRuns) {
    std::shared_ptr<TaskHandle> handle;
    bool doneInside = false;
    auto const task = submission([&] {
        handle->cancel();
        doneInside = handle->isDone();
        return Executable::SUCCESS;
    });
    handle = link(task);

    task->execute();

    EXPECT_TRUE(doneInside);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, CancellingAFinishedTaskKeepsItsResult) {
    auto const task = submission();
    auto const handle = link(task);
    task->execute();
    ASSERT_EQ(handle->getState(), Executable::DONE);

    handle->cancel();

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
    EXPECT_EQ(task->getResult(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, OutlivesItsTask) {
    auto task = submission(give(Executable::FAILURE));
    auto const handle = link(task);
    task->execute();
    task.reset();

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE) << "not the proxy's answer";
    handle->cancel();
    handle->updatePriority(HIGH);
    handle->waitForCompletion();
    handle->waitForCompletion();
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_P(LinkedHandleTest, KeepsTheLastStateOfATaskThatNeverRan) {
    auto waiting = submission();
    auto cancelled = submission();
    auto const waitingHandle = link(waiting);
    auto const cancelledHandle = link(cancelled);
    cancelledHandle->cancel();

    waiting.reset();
    cancelled.reset();

    EXPECT_EQ(waitingHandle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(waitingHandle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(cancelledHandle->getState(), Executable::CANCELLED);
    EXPECT_EQ(cancelledHandle->getResult(), Executable::NO_RESULT);
}

TEST_P(LinkedHandleTest, DoesNotKeepItsTaskAlive) {
    auto const task = submission();
    auto const handle = link(task);

    EXPECT_EQ(task.use_count(), 1);
    EXPECT_EQ(handle.use_count(), 1);
}

TEST_P(LinkedHandleTest, DestructionDoesNotTouchTheTask) {
    auto const task = submission();
    link(task).reset();

    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task->execute(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, WaitReturnsForEveryOutcome) {
    for (int const result : {1, 2, 3, 4, 0}) {
        auto const task = submission(give(result));
        auto const handle = link(task);
        std::thread worker([&task] { task->execute(); });

        handle->waitForCompletion();

        EXPECT_EQ(handle->getState(), Executable::DONE);
        EXPECT_EQ(std::int32_t{handle->getResult()}, result);
        worker.join();
    }
}

TEST_P(LinkedHandleTest, SecondWaitOnALiveTaskThrows) {
    auto const task = submission();
    auto const handle = link(task);
    task->setPromiseValue();
    handle->waitForCompletion();

    test::LogRecorder recorder(log::ERROR);
    // With no lock held: a sink may ask for what it likes.
    recorder.onLine([&](test::LogLine const&) { task->getState(); });
    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
    EXPECT_THAT(recorder.texts(), ElementsAre(WAITED_TWICE));
}

TEST_P(LinkedHandleTest, WaitAndFutureExcludeEachOther) {
    auto const waited = submission();
    auto const waitedHandle = link(waited);
    waited->setPromiseValue();
    waitedHandle->waitForCompletion();
    test::LogRecorder const recorder(log::ERROR);
    EXPECT_EQ(errorOf([&] { waited->getFuture(); }), std::future_errc::future_already_retrieved);

    auto const taken = submission();
    auto const takenHandle = link(taken);
    auto const future = taken->getFuture();
    EXPECT_EQ(errorOf([&] { takenHandle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
    EXPECT_THAT(recorder.texts(), ElementsAre(WAITED_TWICE, WAITED_TWICE));
}

TEST_P(LinkedHandleTest, OfTwoThreadsThatWaitOneThrows) {
    auto const task = submission();
    auto const handle = link(task);
    std::atomic<int> refused{0};
    auto const waitOrRelease = [&] {
        try {
            handle->waitForCompletion();
        } catch (std::future_error const& e) {
            EXPECT_EQ(e.code(), std::future_errc::future_already_retrieved);
            ++refused;
            task->setPromiseValue();  // Releases the other one.
        }
    };

    std::thread first(waitOrRelease);
    std::thread second(waitOrRelease);
    first.join();
    second.join();

    EXPECT_EQ(refused, 1);
}

TEST_P(LinkedHandleTest, ExceptionCanBeReadAfterTheWait) {
    auto const thrown = std::make_exception_ptr(std::runtime_error("x"));
    auto const task =
        submission([&thrown]() -> Executable::Result { std::rethrow_exception(thrown); });
    auto const handle = link(task);
    std::thread worker([&task] { task->execute(); });

    handle->waitForCompletion();

    EXPECT_EQ(handle->getException(), thrown);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    worker.join();
}

TEST_P(LinkedHandleTest, LogsNothing) {
    test::LogRecorder recorder;
    auto task = submission();
    auto const handle = link(task);

    handle->updatePriority(HIGH);
    handle->cancel();
    task->setPromiseValue();
    handle->waitForCompletion();
    task.reset();
    handle->cancel();
    handle->waitForCompletion();

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_P(LinkedHandleTest, WaitTakesTheFuture) {
    auto const task = submission();
    auto const handle = link(task);
    task->setPromiseValue();
    handle->waitForCompletion();

    EXPECT_EQ(errorOf([&] { task->getFuture(); }), std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, WaitForATaskWhoseFutureIsTakenThrows) {
    auto const task = submission();
    auto const handle = link(task);
    auto future = task->getFuture();

    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);

    task->setPromiseValue();
    EXPECT_TRUE(future.get());
    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, OfTwoHandlesOfATaskOneCanWait) {
    auto const task = submission();
    auto const first = link(task);
    auto const second = link(task);
    task->execute();
    first->waitForCompletion();

    EXPECT_EQ(errorOf([&] { second->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, WaitKeepsTheTaskAlive) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    auto const handle = link(task);
    std::thread waiter([&handle] { handle->waitForCompletion(); });
    test::yieldUntil([&] { return watched.use_count() == 2; });

    task.reset();
    EXPECT_EQ(watched.use_count(), 1);
    watched.lock()->setPromiseValue();
    waiter.join();

    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace ovra::concurrent
