#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
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
using ::testing::IsEmpty;

class SubmittedTaskStateTest : public test::BoundedTest {};

Executable::State stateOf(int value) {
    return static_cast<Executable::State>(value);
}

TEST_F(SubmittedTaskStateTest, EveryStateMayFollowEveryOther) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    for (int before = 0; before <= 6; ++before) {
        for (int after = 0; after <= 6; ++after) {
            task->setState(stateOf(before));
            ASSERT_EQ(task->getState(), stateOf(before));
            handle->setState(stateOf(-1));

            task->setState(stateOf(after));
            ASSERT_EQ(task->getState(), stateOf(after)) << "after " << before;
            ASSERT_EQ(handle->getState(), stateOf(after)) << "after " << before;
            ASSERT_EQ(task->isCancelled(), after == 4);
        }
    }
    EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
}

TEST_F(SubmittedTaskStateTest, EveryResultMayFollowEveryOther) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    for (int before = 0; before <= 6; ++before) {
        for (int after = 0; after <= 6; ++after) {
            task->setResult(resultOf(before));
            ASSERT_EQ(task->getResult(), resultOf(before));
            handle->setResult(resultOf(-1));

            task->setResult(resultOf(after));
            ASSERT_EQ(task->getResult(), resultOf(after)) << "after " << before;
            ASSERT_EQ(handle->getResult(), resultOf(after)) << "after " << before;
        }
    }
    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTaskStateTest, OnlySuccessAndFailureAreFinishedResults) {
    auto const task = submission();
    for (int const value : {INT32_MIN, -1, 0, 1, 4, 5, 6, INT32_MAX}) {
        EXPECT_FALSE(task->isFinishedResult(resultOf(value))) << value;
    }
    EXPECT_TRUE(task->isFinishedResult(Executable::SUCCESS));
    EXPECT_TRUE(task->isFinishedResult(Executable::FAILURE));
}

TEST_F(SubmittedTaskStateTest, LinkingAHandlePushesTheCurrentStateAndResult) {
    auto const task = submission();
    auto const handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
    task->setState(Executable::READY);
    task->setResult(Executable::ABORTED);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);

    task->setHandle(handle);

    EXPECT_EQ(handle->getState(), Executable::READY);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_EQ(task->getHandle().lock(), handle);
}

TEST_F(SubmittedTaskStateTest, LinkingAHandleChangesNothingInTheTask) {
    auto const task = std::make_shared<ObservedTask>(succeed());

    auto const handle = linkHandle(task);

    EXPECT_THAT(task->events, IsEmpty());
}

TEST_F(SubmittedTaskStateTest, TheHandleLinkedLastFollowsAlone) {
    auto const task = submission();
    auto const first = linkHandle(task);
    auto const second = linkHandle(task);

    task->setState(Executable::CANCELLED);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(first->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(first->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(second->getState(), Executable::CANCELLED);
    EXPECT_EQ(second->getResult(), Executable::FAILURE);
    EXPECT_EQ(task->getHandle().lock(), second);
}

TEST_F(SubmittedTaskStateTest, LinkingNoHandleEndsTheLink) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setHandle(nullptr);
    task->setState(Executable::DONE);

    EXPECT_TRUE(task->getHandle().expired());
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTaskStateTest, DoesNotKeepItsHandleAlive) {
    auto const task = submission();
    auto handle = linkHandle(task);
    EXPECT_EQ(handle.use_count(), 1);

    handle.reset();

    EXPECT_TRUE(task->getHandle().expired());
    task->setState(Executable::CANCELLED);
    task->setResult(Executable::ABORTED);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
    EXPECT_EQ(task->getResult(), Executable::ABORTED);
}

TEST_F(SubmittedTaskStateTest, PushingLeavesNoReferenceToTheHandle) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setState(Executable::EXECUTING);
    task->setResult(Executable::SUCCESS);
    task->handleAndLogUnknownException(nullptr, true);

    EXPECT_EQ(handle.use_count(), 1);
}

TEST_F(SubmittedTaskStateTest, StateChangesFromOutsideAreNotLogged) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setState(Executable::EXECUTING);
    task->setResult(Executable::FAILURE);
    handle->cancel();
    handle->updatePriority(HIGH);
    task->setPromiseValue();

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(SubmittedTaskStateTest, UpdatingTheStateIsLogged) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, "sync");

    task->updateTaskState(Executable::READY);

    EXPECT_EQ(task->getState(), Executable::READY);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "READY"), log::INFO}));
}

TEST_F(SubmittedTaskStateTest, UpdatingToAnUnknownStateIsLoggedAsSuch) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, "sync");

    task->updateTaskState(stateOf(6));

    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("sync", "UNKNOWN")));
}

TEST_F(SubmittedTaskStateTest, NullNameIsLoggedAsText) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, nullptr);

    task->updateTaskState(Executable::DONE);

    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("(null)", "DONE")));
}

TEST_F(SubmittedTaskStateTest, LogsTheStateThatWasAskedForWhateverASubclassMakesOfIt) {
    class Stubborn : public SubmittedTask {
    public:
        Stubborn() : SubmittedTask(succeed(), NORMAL, Callback(), "stubborn") {}
        void setState(Executable::State) override {}
    };
    test::LogRecorder recorder;
    Stubborn task;

    task.updateTaskState(Executable::EXECUTING);

    EXPECT_EQ(task.getState(), Executable::UNSCHEDULED);
    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("stubborn", "EXECUTING")));
}

TEST_F(SubmittedTaskStateTest, LogsAStateAfterItIsSetAndWithoutItsLock) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);
    std::vector<Executable::State> seen;
    recorder.onLine([&](test::LogLine const&) {
        seen.push_back(task->getState());
        seen.push_back(handle->getState());
    });

    task->updateTaskState(Executable::EXECUTING);

    EXPECT_THAT(seen, ElementsAre(Executable::EXECUTING, Executable::EXECUTING));
}

}  // namespace
}  // namespace ovra::concurrent
