#include <ovra/concurrent/SubmittedTasksQueue.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<SubmittedTasksQueue>);
static_assert(!std::is_copy_constructible_v<SubmittedTasksQueue>);
static_assert(!std::is_move_constructible_v<SubmittedTasksQueue>);

class SubmittedTasksQueueTest : public test::BoundedTest {};

template <typename Strategy>
class SubmittedTasksQueueClosingTest : public test::BoundedTest {};
TYPED_TEST_SUITE(SubmittedTasksQueueClosingTest, Strategies, StrategyName);

// --- adding

TEST_F(SubmittedTasksQueueTest, StartsEmptyAndOpen) {
    auto const queue = makeQueue();

    EXPECT_TRUE(queue->isEmpty());
    EXPECT_FALSE(queue->isClosed());
    EXPECT_EQ(queue->getNextTask(), nullptr);
    EXPECT_FALSE(queue->isClosed());
}

TEST_F(SubmittedTasksQueueTest, TakesOverItsStrategy) {
    auto strategy = std::make_shared<NoStarveTaskRankingStrategy>();
    std::weak_ptr<TaskRankingStrategy> const watched = strategy;
    {
        SubmittedTasksQueue const queue(std::move(strategy));
        EXPECT_EQ(watched.use_count(), 1);
    }
    EXPECT_TRUE(watched.expired());
}

TEST_F(SubmittedTasksQueueTest, GivesAHandleThatFollowsTheTask) {
    auto const queue = makeQueue();
    auto const task = submission();

    auto const handle = queue->addTask(task);

    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(task->getHandle().lock(), handle);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_FALSE(queue->isEmpty());
    handle->updatePriority(HIGH);
    EXPECT_EQ(task->getPriority(), HIGH);
    handle->cancel();
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
}

TEST_F(SubmittedTasksQueueTest, NewHandleShowsWhatTheTaskHasBecome) {
    auto const queue = makeQueue();
    auto const task = submission();
    task->setState(Executable::DONE);
    task->setResult(Executable::FAILURE);

    auto const handle = queue->addTask(task);

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(SubmittedTasksQueueTest, OwnsOneReferenceToAQueuedTask) {
    auto const queue = makeQueue();
    auto const task = submission();

    auto const handle = queue->addTask(task);
    EXPECT_EQ(task.use_count(), 2);
    EXPECT_EQ(handle.use_count(), 1);

    EXPECT_EQ(queue->getNextTask(), task);
    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(SubmittedTasksQueueTest, TakesACancelledTaskAllTheSame) {
    auto const queue = makeQueue();
    auto const task = submission();
    task->setState(Executable::CANCELLED);

    auto const handle = queue->addTask(task);

    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_EQ(queue->getNextTask(), task);
    EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
}

TEST_F(SubmittedTasksQueueTest, RefusesANullTask) {
    auto const queue = makeQueue();

    EXPECT_EQ(queue->addTask(nullptr), nullptr);

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueueTest, LinksTheHandleBeforeTheTaskIsQueued) {
    // While the strategy holds the lock, nothing can be queued.
    test::Gate inside;
    test::Gate release;
    auto const queue = makeScriptedQueue([&](SubmittedTask*) {
        inside.open();
        release.wait();
    });
    queue->addTask(submission());
    std::thread picker([&queue] { queue->getNextTask(); });
    inside.wait();
    auto const task = submission();
    std::thread submitter([&] { queue->addTask(task); });

    test::yieldUntil([&task] { return task->getHandle().lock() != nullptr; });

    release.open();
    picker.join();
    submitter.join();
    EXPECT_EQ(queue->getNextTask(), task);
}

TEST_F(SubmittedTasksQueueTest, DoesNotAskTheStrategyWhenAdding) {
    int updates = 0;
    auto const queue = makeScriptedQueue([&updates](SubmittedTask*) { ++updates; });

    queue->addTask(submission());
    queue->addTask(submission());

    EXPECT_EQ(updates, 0);
}

TEST_F(SubmittedTasksQueueTest, WithoutAStrategyLeavesRanksAlone) {
    SubmittedTasksQueue queue(nullptr);
    auto const low = submission(succeed(), LOW);
    auto const high = submission(succeed(), HIGH);
    queue.addTask(low);
    queue.addTask(high);

    EXPECT_EQ(queue.getNextTask(), high);
    EXPECT_EQ(queue.getNextTask(), low);
    EXPECT_EQ(low->getRank(), 1u);
}

// --- closing

TYPED_TEST(SubmittedTasksQueueClosingTest, RefusesAndYieldsNothingOnceClosed) {
    auto const queue = makeQueue<TypeParam>();
    queue->addTask(submission());
    auto const late = submission();

    queue->close();

    EXPECT_TRUE(queue->isClosed());
    EXPECT_TRUE(queue->isEmpty());
    EXPECT_EQ(queue->getNextTask(), nullptr);
    EXPECT_EQ(queue->addTask(late), nullptr);
    EXPECT_TRUE(queue->isEmpty());
    EXPECT_EQ(late.use_count(), 1);
    EXPECT_TRUE(late->getHandle().expired());
    EXPECT_EQ(late->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTasksQueueTest, ClosingASecondTimeDoesNothing) {
    auto const queue = makeQueue();
    queue->close();
    queue->close();

    EXPECT_TRUE(queue->isClosed());
    EXPECT_TRUE(queue->isEmpty());
}

TYPED_TEST(SubmittedTasksQueueClosingTest, ClosingDropsTasksAsTheyStand) {
    test::LogRecorder recorder;
    auto const queue = makeQueue<TypeParam>();
    bool calledBack = false;
    auto const waiting = std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; },
        "waiting");
    auto const cancelled = submission();
    auto const waitingHandle = queue->addTask(waiting);
    auto const cancelledHandle = queue->addTask(cancelled);
    cancelledHandle->cancel();
    auto const future = waiting->getFuture();
    auto const cancelledFuture = cancelled->getFuture();

    queue->close();

    EXPECT_EQ(waiting.use_count(), 1);
    EXPECT_EQ(waitingHandle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(waitingHandle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(cancelledHandle->getState(), Executable::CANCELLED);
    EXPECT_EQ(cancelledHandle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(cancelledFuture.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_FALSE(calledBack);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TYPED_TEST(SubmittedTasksQueueClosingTest, RanksOutliveTheQueue) {
    auto queue = makeQueue<TypeParam>();
    auto const picked = submission(succeed(), HIGHEST);
    auto const dropped = submission(succeed(), HIGHEST);
    queue->addTask(picked);
    auto const handle = queue->addTask(dropped);
    ASSERT_EQ(queue->getNextTask(), picked);
    queue.reset();

    picked->setPriority(LOW);
    handle->updatePriority(LOW);
    picked->setRank(7);
    dropped->setRank(9);
    EXPECT_EQ(picked->getRank(), 7u);
    EXPECT_EQ(dropped->getRank(), 9u);

    // And they count in another queue.
    auto const next = makeQueue<TypeParam>();
    auto const other = submission();
    for (auto const& added : {other, picked, dropped}) {
        next->addTask(added);
    }
    picked->setPriority(HIGH);
    dropped->setPriority(HIGHEST);
    EXPECT_EQ(next->getNextTask(), dropped);
    EXPECT_EQ(next->getNextTask(), picked);
    EXPECT_EQ(next->getNextTask(), other);
}

TYPED_TEST(SubmittedTasksQueueClosingTest, ClosingDestroysTasksThatNobodyElseHolds) {
    auto const queue = makeQueue<TypeParam>();
    auto task = submission();
    auto future = task->getFuture();
    queue->addTask(std::move(task));

    queue->close();

    EXPECT_THROW(future.get(), std::future_error);
}

TYPED_TEST(SubmittedTasksQueueClosingTest, WhatADroppedTaskDestroysMayUseTheQueue) {
    auto const queue = makeQueue<TypeParam>();
    std::vector<std::string> seen;
    auto* const raw = queue.get();
    queue->addTask(submission([end = test::atEnd([&seen, raw] {
                                   seen.emplace_back(raw->isClosed() ? "closed" : "open");
                                   seen.emplace_back(raw->isEmpty() ? "empty" : "filled");
                                   seen.emplace_back(raw->addTask(submission()) ? "taken"
                                                                                : "refused");
                                   raw->close();
                               })] { return Executable::SUCCESS; }));

    queue->close();

    EXPECT_THAT(seen, ElementsAre("closed", "empty", "refused"));
}

TYPED_TEST(SubmittedTasksQueueClosingTest, DestructionClosesAndDropsTasks) {
    auto queue = makeQueue<TypeParam>();
    auto const task = submission();
    auto const handle = queue->addTask(task);
    bool closedThen = false;
    auto* const raw = queue.get();
    queue->addTask(submission([end = test::atEnd([&] { closedThen = raw->isClosed(); })] {
        return Executable::SUCCESS;
    }));

    queue.reset();

    EXPECT_TRUE(closedThen);
    EXPECT_EQ(task.use_count(), 1);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTasksQueueTest, CanBeSharedByThreadsThatAddAndPick) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    constexpr int EACH = 500;
    std::vector<std::thread> threads;
    std::atomic<int> picked{0};
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&queue] {
            for (int added = 0; added < EACH; ++added) {
                queue->addTask(submission(succeed(), added % 2 == 0 ? LOW : HIGH));
            }
        });
        threads.emplace_back([&] {
            test::yieldUntil([&] {
                if (queue->getNextTask()) {
                    ++picked;
                }
                return picked == 2 * EACH;
            });
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueueTest, OnlyItsDestructorIsVirtual) {
    EXPECT_EQ(test::virtualSlotCount("SubmittedTasksQueue"), 2u);
}

}  // namespace
}  // namespace ovra::concurrent
