// Ranks that change while the queue works: before each instruction of the library that changes or
// reads one.

#include <functional>
#include <memory>
#include <type_traits>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/Stepping.h>

namespace ovra::concurrent {
namespace {

using test::atEachInstruction;
using test::Stepping;

unsigned int rankOf(TaskPriority priority) {
    return submission(succeed(), priority)->getRank();
}

template <typename Strategy>
class QueueInstructionTest : public test::BoundedTest {
protected:
    void SetUp() override {
        BoundedTest::SetUp();
        if (*test::noSteppingBecause() != '\0') {
            GTEST_SKIP() << test::noSteppingBecause();
        }
    }
};
TYPED_TEST_SUITE(QueueInstructionTest, Strategies, StrategyName);

// Two steps that run at once: the first is stopped before each of its instructions.
using Step = std::function<void()>;
void inBothOrders(std::function<void(Stepping&, Step const&, Step const&)> const& round,
                  Step const& one, Step const& other) {
    atEachInstruction([&](Stepping& step) { round(step, one, other); });
    atEachInstruction([&](Stepping& step) { round(step, other, one); });
}

TYPED_TEST(QueueInstructionTest, PrioritySetWhileTheTaskIsAddedIsKept) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), HIGHEST);
            auto const other = submission(succeed(), HIGH);
            queue->addTask(other);

            step(first, second);

            ASSERT_EQ(task->getRank(), rankOf(LOW)) << step.nth;
            ASSERT_EQ(queue->getNextTask(), other) << step.nth;
            ASSERT_EQ(queue->getNextTask(), task) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { queue->addTask(task); });
}

// So that no queue computes a rank which is below that of the priority.
TYPED_TEST(QueueInstructionTest, PriorityIsMarkedWhileItIsAheadOfTheRank) {
    atEachInstruction([&](Stepping& step) {
        auto const task = submission(succeed(), LOW);
        RankedEntry const& entry = task->rankedEntry();
        bool isMarked = true;
        step(
            [&] { task->setPriority(HIGH); },
            [&] { isMarked = entry.rank == rankOf(entry.priority) || entry.priorityChanges != 0; });
        ASSERT_TRUE(isMarked) << step.nth;
        ASSERT_EQ(entry.rank, rankOf(HIGH)) << step.nth;
        ASSERT_EQ(entry.priorityChanges, 0) << step.nth;
    });
}

// The other side: a change that the queue's mark comes too late for is seen by the queue.
TYPED_TEST(QueueInstructionTest, ChangeOfPriorityThatBeginsAheadOfTheMarkIsLeftToTheScan) {
    atEachInstruction([&](Stepping& step) {
        auto const queue = makeQueue<TypeParam>();
        auto const task = submission(succeed(), HIGH);
        RankedEntry& entry = task->rankedEntry();
        bool hasBegun = false;
        step([&] { queue->addTask(task); },
             [&] {
                 hasBegun = !entry.isComputed();
                 entry.priorityChanges = hasBegun ? 1 : 0;
             });
        ASSERT_EQ(entry.isComputed(), !hasBegun) << step.nth;
        entry.priorityChanges = 0;
    });
}

TYPED_TEST(QueueInstructionTest, PrioritySetWhileAnotherTaskIsPickedIsKept) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    std::shared_ptr<SubmittedTask> picked;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), HIGH);
            auto const urgent = submission(succeed(), HIGHEST);
            auto const other = submission(succeed(), NORMAL);
            for (auto const& added : {task, other, urgent}) {
                queue->addTask(added);
            }

            step(first, second);

            ASSERT_EQ(picked, urgent) << step.nth;
            // Before that pick, which then updates the rank, or after it.
            ASSERT_LE(task->getRank(), 2 * rankOf(LOW)) << step.nth;
            ASSERT_EQ(queue->getNextTask(), other) << step.nth;
            ASSERT_EQ(queue->getNextTask(), task) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { picked = queue->getNextTask(); });
}

TYPED_TEST(QueueInstructionTest, PrioritySetDuringAScanCountsAtThatPickOrAtTheNext) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    std::shared_ptr<SubmittedTask> picked;
    bool const doubles = std::is_same_v<TypeParam, NoStarveTaskRankingStrategy>;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), HIGHEST);
            for (int i = 0; i < 4; ++i) {
                queue->addTask(scannedSubmission());
                if (i == 2) {
                    queue->addTask(task);
                }
            }

            step(first, second);

            // Set before the pick compared the task, whose rank it then updates; or afterwards,
            // when the old rank has made it the best.
            unsigned int const updates = doubles && picked != task ? 2 : 1;
            ASSERT_EQ(task->getRank(), updates * rankOf(LOW)) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { picked = queue->getNextTask(); });
}

TYPED_TEST(QueueInstructionTest, PrioritySetWhileTheTaskIsPickedIsKept) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), HIGH);
            queue->addTask(task);

            step(first, second);

            ASSERT_EQ(task->getPriority(), LOW) << step.nth;
            ASSERT_LE(task->getRank(), 2 * rankOf(LOW)) << step.nth;
            ASSERT_TRUE(queue->isEmpty()) << step.nth;
            auto const next = submission();
            queue->addTask(next);
            ASSERT_EQ(queue->getNextTask(), next) << step.nth;
            ASSERT_EQ(queue->getNextTask(), nullptr) << step.nth;
            ASSERT_TRUE(queue->isEmpty()) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { queue->getNextTask(); });
}

// The set finds a task by its rank, which another thread may change once the task is picked.
TYPED_TEST(QueueInstructionTest, PickedTaskLeavesTheSetWhateverPriorityIsSetMeanwhile) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            // A chain for each of these, and none for the task.
            for (unsigned int const rank : {10u, 20u, 40u, 80u}) {
                auto const older = submission(succeed(), LOW);
                older->setRank(rank);
                queue->addTask(older);
            }
            task = submission(succeed(), HIGHEST);
            queue->addTask(task);

            step(first, second);

            int picks = 1;
            while (queue->getNextTask() != nullptr) {
                ++picks;
            }
            ASSERT_EQ(picks, 5) << step.nth;
            ASSERT_TRUE(queue->isEmpty()) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { queue->getNextTask(); });
}

TYPED_TEST(QueueInstructionTest, RankSetWhileTheQueueIsClosedIsKept) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), LOW);
            queue->addTask(task);

            step(first, second);

            ASSERT_EQ(task->getRank(), 5000u) << step.nth;
            ASSERT_EQ(task.use_count(), 1) << step.nth;
        },
        [&] { task->setRank(5000); }, [&] { queue->close(); });
}

TYPED_TEST(QueueInstructionTest, RankReadMeanwhileIsThatOfBeforeOrAfter) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    unsigned int read = 0;
    Step const ask = [&] { read = task->getRank(); };
    Step const changes[] = {[&] { queue->getNextTask(); }, [&] { task->setRank(9000); },
                            [&] { queue->close(); }};
    for (Step const& change : changes) {
        inBothOrders(
            [&](Stepping& step, Step const& first, Step const& second) {
                queue = makeQueue<TypeParam>();
                task = submission(succeed(), LOW);
                task->setRank(5000);
                for (auto const& added :
                     {task, submission(succeed(), HIGHEST), submission(succeed(), HIGHEST)}) {
                    queue->addTask(added);
                }
                queue->getNextTask();
                unsigned int const before = task->getRank();

                step(first, second);

                ASSERT_TRUE(read == before || read == task->getRank()) << read << " " << step.nth;
            },
            ask, change);
    }
}

TYPED_TEST(QueueInstructionTest, TaskAddedToTwoQueuesAtOnceIsInBoth) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTasksQueue> other;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            other = makeQueue<TypeParam>();
            task = submission();

            step(first, second);

            ASSERT_EQ(queue->getNextTask(), task) << step.nth;
            ASSERT_EQ(other->getNextTask(), task) << step.nth;
            ASSERT_TRUE(queue->isEmpty() && other->isEmpty()) << step.nth;
            ASSERT_EQ(task.use_count(), 1) << step.nth;
        },
        [&] { queue->addTask(task); }, [&] { other->addTask(task); });
}

TYPED_TEST(QueueInstructionTest, OfTwoPrioritiesSetAtOnceTheRankIsThatOfTheLast) {
    std::shared_ptr<SubmittedTasksQueue> queue;
    std::shared_ptr<SubmittedTask> task;
    inBothOrders(
        [&](Stepping& step, Step const& first, Step const& second) {
            queue = makeQueue<TypeParam>();
            task = submission(succeed(), NORMAL);
            queue->addTask(task);

            step(first, second);

            ASSERT_EQ(task->getRank(), rankOf(task->getPriority())) << step.nth;
        },
        [&] { task->setPriority(LOW); }, [&] { task->setPriority(HIGH); });
}

}  // namespace
}  // namespace ovra::concurrent
