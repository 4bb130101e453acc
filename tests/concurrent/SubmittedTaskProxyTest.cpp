#include <ovra/concurrent/TaskHandle.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

static_assert(!std::is_polymorphic_v<SubmittedTaskProxy>);
static_assert(std::is_default_constructible_v<SubmittedTaskProxy>);
static_assert(std::is_aggregate_v<SubmittedTaskProxy>, "a plain record");
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::getState), std::function<Executable::State()>>);
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::getResult), std::function<Executable::Result()>>);
static_assert(std::is_same_v<decltype(SubmittedTaskProxy::updatePriority),
                             std::function<void(TaskPriority)>>);
static_assert(std::is_same_v<decltype(SubmittedTaskProxy::cancel), std::function<void()>>);
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::waitForCompletion), std::function<void()>>);

using SubmittedTaskProxyTest = test::BoundedTest;

TEST_F(SubmittedTaskProxyTest, MembersStandInTheirOrder) {
    SubmittedTaskProxy proxy;
    EXPECT_LT(static_cast<void*>(&proxy.getState), static_cast<void*>(&proxy.getResult));
    EXPECT_LT(static_cast<void*>(&proxy.getResult), static_cast<void*>(&proxy.updatePriority));
    EXPECT_LT(static_cast<void*>(&proxy.updatePriority), static_cast<void*>(&proxy.cancel));
    EXPECT_LT(static_cast<void*>(&proxy.cancel), static_cast<void*>(&proxy.waitForCompletion));
}

TEST_F(SubmittedTaskProxyTest, ReadsTheLiveTask) {
    auto const task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);

    task->setState(Executable::READY);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(proxy->getState(), Executable::READY);
    EXPECT_EQ(proxy->getResult(), Executable::FAILURE);
}

TEST_F(SubmittedTaskProxyTest, AnswersForADestroyedTask) {
    auto task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);
    task.reset();

    EXPECT_EQ(proxy->getState(), Executable::DONE);
    EXPECT_EQ(proxy->getResult(), Executable::SUCCESS);
    proxy->updatePriority(HIGH);
    proxy->cancel();
    proxy->waitForCompletion();
}

TEST_F(SubmittedTaskProxyTest, OfNoTaskAnswersAsForADestroyedOne) {
    auto const proxy = SubmittedTask::provideProxy({});

    EXPECT_EQ(proxy->getState(), Executable::DONE);
    EXPECT_EQ(proxy->getResult(), Executable::SUCCESS);
    proxy->updatePriority(HIGH);
    proxy->cancel();
    proxy->waitForCompletion();
}

TEST_F(SubmittedTaskProxyTest, UpdatesPriorityAndRank) {
    auto const task = submission(succeed(), HIGH);
    task->setRank(5000000);

    SubmittedTask::provideProxy(task)->updatePriority(NORMAL);

    EXPECT_EQ(task->getPriority(), NORMAL);
    EXPECT_EQ(task->getRank(), 1000u);
}

TEST_F(SubmittedTaskProxyTest, CancelsThroughTheVirtualOperation) {
    class Observed : public SubmittedTask {
    public:
        Observed() : SubmittedTask(succeed(), NORMAL, Callback(), "observed") {}
        void setState(Executable::State newState) override { states.push_back(newState); }
        std::vector<Executable::State> states;
    };
    auto const task = std::make_shared<Observed>();

    SubmittedTask::provideProxy(task)->cancel();

    EXPECT_THAT(task->states, ElementsAre(Executable::CANCELLED));
}

TEST_F(SubmittedTaskProxyTest, CancelsWhateverTheState) {
    for (auto const state : {Executable::UNSCHEDULED, Executable::READY, Executable::EXECUTING,
                             Executable::CANCELLED, Executable::DONE}) {
        auto const task = submission();
        task->setState(state);

        SubmittedTask::provideProxy(task)->cancel();

        EXPECT_EQ(task->getState(), Executable::CANCELLED) << taskStateToName(state);
        EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
    }
}

TEST_F(SubmittedTaskProxyTest, HoldsTheTaskWeaklyBetweenCalls) {
    auto task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);
    EXPECT_EQ(task.use_count(), 1);

    proxy->getState();
    proxy->getResult();
    proxy->updatePriority(LOW);
    proxy->cancel();
    task->setPromiseValue();
    proxy->waitForCompletion();

    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(SubmittedTaskProxyTest, MembersDoNotNeedTheRecord) {
    auto const task = submission();
    SubmittedTaskProxy copy;
    {
        auto const proxy = SubmittedTask::provideProxy(task);
        EXPECT_EQ(proxy.use_count(), 1);
        copy = *proxy;
    }

    copy.cancel();

    EXPECT_EQ(copy.getState(), Executable::CANCELLED);
}

}  // namespace
}  // namespace ovra::concurrent
