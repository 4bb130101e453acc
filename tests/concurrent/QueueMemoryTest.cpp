// How much memory the queue asks for.

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

class QueueMemoryTest : public test::BoundedTest {};

template <typename Strategy>
class QueueMemoryStrategyTest : public test::BoundedTest {};
TYPED_TEST_SUITE(QueueMemoryStrategyTest, Strategies, StrategyName);

class PatientStrategy : public TaskRankingStrategy {
public:
    void updateRank(SubmittedTask*) override {}
};

// The most bytes that are allocated at once in the course of `action`.
std::size_t largestBlockOf(std::function<void()> const& action) {
    std::size_t largest = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t bytes) {
        largest = std::max(largest, bytes);
        return false;
    };
    calls.install();
    action();
    return largest;
}

TEST_F(QueueMemoryTest, TaskThatFindsNoMemoryDiesWithoutTheLock) {
    auto const queue = makeQueue<PatientStrategy>();
    bool died = false;
    std::shared_ptr<void> guard(nullptr, [&](void*) { died = queue->isEmpty(); });
    auto task = submission([guard] { return Executable::SUCCESS; });
    guard.reset();
    int allocations = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t) { return ++allocations == 2; };  // After the handle's.
    calls.install();

    EXPECT_THROW(queue->addTask(std::move(task)), std::bad_alloc);
    EXPECT_TRUE(died);
}

TYPED_TEST(QueueMemoryStrategyTest, RanksAndPrioritiesChangeWithoutMemory) {
    auto const queue = makeQueue<TypeParam>();
    auto const queued = submission();
    auto const other = submission();
    queue->addTask(queued);
    int allocations = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t) { return ++allocations > 0; };
    calls.install();

    other->setRank(2000);
    other->setPriority(HIGH);
    EXPECT_EQ(allocations, 0) << "nobody computes its rank";
    queued->setRank(2000);
    EXPECT_EQ(queued->getRank(), 2000u);
    queued->setPriority(HIGH);
    EXPECT_EQ(queued->getPriority(), HIGH);
    EXPECT_EQ(queued->getRank(), other->getRank());
}

TYPED_TEST(QueueMemoryStrategyTest, TasksOfTheirFirstPriorityNeedNoMemoryButForTheirHandles) {
    auto const queue = makeQueue<TypeParam>();
    int allocations = 0;
    for (int i = 0; i < 40; ++i) {
        auto const task = submission(succeed(), static_cast<TaskPriority>(i % 4 + 1));
        test::ThreadCalls calls;
        calls.onAllocate = [&](std::size_t) {
            ++allocations;
            return false;
        };
        calls.install();
        queue->addTask(task);
    }
    EXPECT_EQ(allocations, 40);

    test::ThreadCalls calls;
    calls.onAllocate = [](std::size_t) { return true; };
    calls.install();
    int picked = 0;
    while (queue->getNextTask()) {
        ++picked;
    }
    EXPECT_EQ(picked, 40) << "also when all have the highest rank";
}

void fillAndDrain(SubmittedTasksQueue& queue, int tasks) {
    for (int i = 0; i < tasks; ++i) {
        queue.addTask(submission());
    }
    while (queue.getNextTask()) {
    }
}

TEST_F(QueueMemoryTest, QueueThatIsNeverEmptyDoesNotGrow) {
    for (auto const& queue :
         {makeQueue(), makeQueue<NoStarveTaskRankingStrategy>(), makeQueue<PatientStrategy>()}) {
        for (int i = 0; i < 10; ++i) {
            queue->addTask(submission());
        }
        EXPECT_LT(largestBlockOf([&] {
                      for (int i = 0; i < 10000; ++i) {
                          queue->addTask(submission());
                          queue->getNextTask();
                      }
                  }),
                  4096u);
    }
}

TEST_F(QueueMemoryTest, NoBlockGrowsWithTheNumberOfTasks) {
    for (auto const& queue :
         {makeQueue(), makeQueue<NoStarveTaskRankingStrategy>(), makeQueue<PatientStrategy>()}) {
        auto const burst = [&](int tasks) {
            return largestBlockOf([&] { fillAndDrain(*queue, tasks); });
        };
        EXPECT_EQ(burst(2000), burst(2));
    }
}

}  // namespace
}  // namespace ovra::concurrent
