#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ObservedTask.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

class SubmittedTaskRunTest : public test::BoundedTest {};

struct Outcome {
    int returned;
    bool cancelled;
    Executable::State state;
    int result;
};

void PrintTo(Outcome const& outcome, std::ostream* out) {
    *out << outcome.returned << (outcome.cancelled ? ", cancelled" : "");
}

class SubmittedTaskOutcomeTest : public ::testing::TestWithParam<Outcome> {};

TEST_P(SubmittedTaskOutcomeTest, FollowsFromWhatTheWorkReturnsAndFromCancellation) {
    test::LogRecorder recorder;
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&running] {
        if (GetParam().cancelled) {
            running.lock()->setState(Executable::CANCELLED);
        }
        return resultOf(GetParam().returned);
    });
    running = task;
    auto const handle = linkHandle(task);
    auto future = task->getFuture();

    EXPECT_EQ(task->execute(), resultOf(GetParam().result));

    EXPECT_EQ(task->getState(), GetParam().state);
    EXPECT_EQ(task->getResult(), resultOf(GetParam().result));
    EXPECT_EQ(handle->getState(), GetParam().state);
    EXPECT_EQ(handle->getResult(), resultOf(GetParam().result));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_TRUE(future.get());
    if (GetParam().cancelled) {
        EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("work", "EXECUTING")));
    } else {
        EXPECT_THAT(recorder.texts(),
                    ElementsAre(movingLine("work", "EXECUTING"), movingLine("work", "DONE")));
    }
}

INSTANTIATE_TEST_SUITE_P(
    SubmittedTaskRunTest, SubmittedTaskOutcomeTest,
    ::testing::Values(
        Outcome{2, false, Executable::DONE, 2}, Outcome{3, false, Executable::DONE, 3},
        Outcome{1, false, Executable::DONE, 1}, Outcome{4, false, Executable::DONE, 4},
        Outcome{0, false, Executable::DONE, 0}, Outcome{6, false, Executable::DONE, 6},
        Outcome{-7, false, Executable::DONE, -7}, Outcome{2, true, Executable::CANCELLED, 2},
        Outcome{3, true, Executable::CANCELLED, 3}, Outcome{1, true, Executable::CANCELLED, 4},
        Outcome{4, true, Executable::CANCELLED, 4}, Outcome{5, true, Executable::CANCELLED, 4},
        Outcome{0, true, Executable::CANCELLED, 4}, Outcome{6, true, Executable::CANCELLED, 4}));

TEST_F(SubmittedTaskRunTest, SetsTheResultBeforeTheFinalState) {
    auto const task = std::make_shared<ObservedTask>(succeed());
    auto const handle = linkHandle(task);
    auto const future = std::make_shared<std::future<bool>>(task->getFuture());
    auto const isReady = [&] {
        return future->wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    task->beforeResult = [&](Executable::Result) {
        EXPECT_EQ(handle->getState(), Executable::EXECUTING);
        EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
        EXPECT_FALSE(isReady());
    };
    task->beforeState = [&](Executable::State state) {
        if (state == Executable::DONE) {
            EXPECT_EQ(handle->getState(), Executable::EXECUTING);
            EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
        }
        EXPECT_FALSE(isReady());
    };

    task->execute();

    EXPECT_THAT(task->events, ElementsAre("state EXECUTING", "result 2", "state DONE"));
    EXPECT_TRUE(isReady());
}

TEST_F(SubmittedTaskRunTest, FulfilsThePromiseAfterTheFinalStateIsLogged) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const future = task->getFuture();
    int looks = 0;
    recorder.onLine([&](test::LogLine const&) {
        ++looks;
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    });

    task->execute();

    EXPECT_EQ(looks, 2);
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

TEST_F(SubmittedTaskRunTest, FulfilsThePromiseAfterTheResultOfACancelledTask) {
    std::weak_ptr<SubmittedTask> running;
    auto const task = std::make_shared<ObservedTask>([&running] {
        running.lock()->setState(Executable::CANCELLED);
        return Executable::SUCCESS;
    });
    running = task;
    auto const future = task->getFuture();
    task->beforeResult = [&](Executable::Result) {
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    };

    task->execute();

    EXPECT_THAT(task->events, ElementsAre("state EXECUTING", "state CANCELLED", "result 2"));
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

TEST_F(SubmittedTaskRunTest, CancellationThatComesWithTheEndIsOverwritten) {
    auto const task = std::make_shared<ObservedTask>(succeed());
    auto const handle = linkHandle(task);
    task->beforeResult = [&handle](Executable::Result) { handle->cancel(); };

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_THAT(task->events,
                ElementsAre("state EXECUTING", "result 2", "state CANCELLED", "state DONE"));
    EXPECT_EQ(handle->getState(), Executable::DONE);
}

TEST_F(SubmittedTaskRunTest, IsExecutingWhileTheWorkRuns) {
    std::weak_ptr<SubmittedTask> running;
    std::vector<int> seen;
    auto const task = submission([&] {
        auto const self = running.lock();
        seen = {self->getState(), self->getResult(), self->getHandle().lock()->getState()};
        return Executable::SUCCESS;
    });
    running = task;
    auto const handle = linkHandle(task);

    task->execute();

    EXPECT_THAT(seen,
                ElementsAre(Executable::EXECUTING, Executable::NO_RESULT, Executable::EXECUTING));
}

TEST_F(SubmittedTaskRunTest, ReturnsTheResultThatASubclassHasLeft) {
    class Changing : public SubmittedTask {
    public:
        Changing() : SubmittedTask(succeed(), NORMAL, Callback(), "changing") {}
        void setResult(Executable::Result) override {
            SubmittedTask::setResult(Executable::FAILURE);
        }
    };
    Changing task;

    EXPECT_EQ(task.execute(), Executable::FAILURE);
}

TEST_F(SubmittedTaskRunTest, RepeatsTheWorkUntilItReturnsSomethingElse) {
    test::LogRecorder recorder;
    int runs = 0;
    std::vector<std::thread::id> threads;
    auto const task = submission([&] {
        threads.push_back(std::this_thread::get_id());
        return ++runs < 4 ? Executable::REPEAT : Executable::SUCCESS;
    });

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_EQ(runs, 4);
    EXPECT_THAT(threads, ::testing::Each(std::this_thread::get_id()));
    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_THAT(recorder.texts(),
                ElementsAre(movingLine("work", "EXECUTING"), movingLine("work", "DONE")));
}

TEST_F(SubmittedTaskRunTest, RepeatedWorkShowsNoResultInBetween) {
    auto const task = std::make_shared<ObservedTask>(Work());
    int runs = 0;
    auto const repeating = std::make_shared<ObservedTask>(
        [&runs] { return ++runs < 3 ? Executable::REPEAT : Executable::FAILURE; });

    repeating->execute();

    EXPECT_THAT(repeating->events, ElementsAre("state EXECUTING", "result 3", "state DONE"));
}

TEST_F(SubmittedTaskRunTest, CancellationEndsRepetition) {
    int runs = 0;
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&] {
        if (++runs == 3) {
            running.lock()->setState(Executable::CANCELLED);
        }
        return Executable::REPEAT;
    });
    running = task;

    EXPECT_EQ(task->execute(), Executable::ABORTED);

    EXPECT_EQ(runs, 3);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
}

TEST_F(SubmittedTaskRunTest, CancellationIsNoticedBeforeTheFirstRun) {
    // A cancellation that follows `EXECUTING` at once.
    class CancelledAtOnce : public SubmittedTask {
    public:
        explicit CancelledAtOnce(Work const& work)
            : SubmittedTask(work, NORMAL, Callback(), "cancelled") {}
        void setState(Executable::State newState) override {
            SubmittedTask::setState(newState);
            SubmittedTask::setState(Executable::CANCELLED);
        }
    };
    int runs = 0;
    CancelledAtOnce task([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    auto future = task.getFuture();

    EXPECT_EQ(task.execute(), Executable::ABORTED);

    EXPECT_EQ(runs, 0);
    EXPECT_EQ(task.getState(), Executable::CANCELLED);
    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskRunTest, ExecutionOverwritesAnEarlierCancellation) {
    int runs = 0;
    auto const task = submission([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    task->setState(Executable::CANCELLED);

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(task->getState(), Executable::DONE);
}

TEST_F(SubmittedTaskRunTest, ExecutingASecondTimeRunsTheWorkAndCannotFulfilThePromiseAgain) {
    int runs = 0;
    auto const task = submission([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    task->execute();

    EXPECT_THROW(task->execute(), std::future_error);
    EXPECT_EQ(runs, 2);
}

TEST_F(SubmittedTaskRunTest, NullTaskWaitsForItsCancellation) {
    test::LogRecorder recorder;
    test::Gate executing;
    recorder.onLine([&executing](test::LogLine const& line) {
        if (line.text == movingLine("Null Task", "EXECUTING")) {
            executing.open();
        }
    });
    auto const task = std::make_shared<SubmittedTask>(std::shared_ptr<Task>(), NORMAL, Callback());
    auto const handle = linkHandle(task);
    auto const execution = std::async(std::launch::async, [&task] { return task->execute(); });
    executing.wait();
    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(execution.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    handle->cancel();
    handle->waitForCompletion();

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    execution.wait();
    EXPECT_EQ(recorder.count(movingLine("Null Task", "DONE")), 0);
}

}  // namespace
}  // namespace ovra::concurrent
