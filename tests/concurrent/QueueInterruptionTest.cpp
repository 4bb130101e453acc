// Ranks that change while the queue works: at each moment at which another thread could change
// them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

using test::mutexesLockedBy;

class QueueInterruptionTest : public test::BoundedTest {};

template <typename Strategy>
class QueueInterruptionStrategyTest : public test::BoundedTest {};
TYPED_TEST_SUITE(QueueInterruptionStrategyTest, Strategies, StrategyName);

// Calls `change` at the nth moment in the course of `action` at which this thread is about to lock
// or to allocate, or has just unlocked.
class Interruption {
public:
    explicit Interruption(int ordinal) : nth(ordinal) {}

    void operator()(std::function<void()> const& action, std::function<void()> const& change) {
        int remaining = nth;
        auto const countDown = [&](auto) {
            if (--remaining == 0) {
                change();
            }
            return 0;
        };
        test::ThreadCalls calls;
        calls.onLock = countDown;
        calls.afterUnlock = countDown;
        calls.onAllocate = countDown;
        calls.install();
        action();
        happened = remaining <= 0;
    }

    int const nth;
    bool happened = false;  // Whether there were so many moments.
};

// A round for each moment, and one without an interruption.
void atEachMoment(std::function<void(Interruption&)> const& round) {
    int nth = 0;
    bool happened = true;
    while (happened && !::testing::Test::HasFatalFailure()) {
        Interruption interrupt(++nth);
        round(interrupt);
        happened = interrupt.happened;
    }
    EXPECT_GT(nth, 1);
}

// From now on `task` doubles its rank at every pick, up to the cap.
void expectAgeing(SubmittedTasksQueue& queue, SubmittedTask const& task, int nth) {
    std::uint64_t rank = task.getRank();
    while (rank < SubmittedTask::HIGHEST_CURRENT_RANK_VALUE) {
        auto const urgent = submission(succeed(), HIGHEST);
        queue.addTask(urgent);
        auto const picked = queue.getNextTask();
        ASSERT_NE(picked.get(), &task) << "interrupted at lock " << nth;
        rank = std::min<std::uint64_t>(rank * 2, SubmittedTask::HIGHEST_CURRENT_RANK_VALUE);
        ASSERT_EQ(task.getRank(), rank) << "interrupted at lock " << nth;
    }
}

// A pick takes two tasks that count as added in the other order for a scan that was given up.
TEST_F(QueueInterruptionTest, TaskThatOvertakesAnotherCountsAsAddedBefore) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto* const mutex = mutexOf(*queue);
    auto overtaking = scannedSubmission();
    test::ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* locked) {
        if (locked == mutex && overtaking) {
            queue->addTask(std::exchange(overtaking, nullptr));
        }
        return 0;
    };
    calls.install();
    queue->addTask(scannedSubmission());
    auto const ageing = submission(succeed(), NORMAL);
    queue->addTask(ageing);
    auto const urgent = submission(succeed(), HIGHEST);
    queue->addTask(urgent);

    EXPECT_EQ(queue->getNextTask(), urgent);

    EXPECT_EQ(ageing->getRank(), 2000u) << "doubled once";
}

TEST_F(QueueInterruptionTest, PriorityLoweredWhileATaskIsAddedCounts) {
    atEachMoment([&](Interruption& interrupt) {
        auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
        auto const urgent = submission(succeed(), HIGHEST);
        auto const task = submission(succeed(), HIGHEST);
        queue->addTask(urgent);

        interrupt([&] { queue->addTask(task); }, [&] { task->setPriority(LOW); });

        if (interrupt.happened) {
            ASSERT_EQ(task->getRank(), 1u);
            expectAgeing(*queue, *task, interrupt.nth);
        }
    });
}

TEST_F(QueueInterruptionTest, PriorityLoweredWhileAnotherTaskIsPickedCounts) {
    for (unsigned int const agedTo : {1000u, 0x3fffffffu, 0x40000000u, 0x7fffffffu}) {
        atEachMoment([&](Interruption& interrupt) {
            auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
            auto const urgent = submission(succeed(), HIGHEST);
            auto const task = submission(succeed(), LOW);
            queue->addTask(task);
            queue->addTask(urgent);
            task->setRank(agedTo);

            interrupt([&] { EXPECT_EQ(queue->getNextTask(), urgent); },
                      [&] { task->setPriority(LOW); });

            if (interrupt.happened) {
                // Updated by that pick, or only by the next.
                ASSERT_LE(task->getRank(), 2u);
                expectAgeing(*queue, *task, interrupt.nth);
            }
        });
    }
}

TYPED_TEST(QueueInterruptionStrategyTest, PriorityRaisedWhileATaskIsAddedCounts) {
    atEachMoment([&](Interruption& interrupt) {
        auto const queue = makeQueue<TypeParam>();
        auto const high = submission(succeed(), HIGH);
        auto const task = submission(succeed(), LOW);
        queue->addTask(high);

        interrupt([&] { queue->addTask(task); }, [&] { task->setPriority(HIGHEST); });

        ASSERT_EQ(queue->getNextTask(), interrupt.happened ? task : high) << interrupt.nth;
    });
}

TYPED_TEST(QueueInterruptionStrategyTest, PriorityLoweredAroundAPickCounts) {
    atEachMoment([&](Interruption& interrupt) {
        auto const queue = makeQueue<TypeParam>();
        auto const first = submission(succeed(), HIGHEST);
        auto const task = submission(succeed(), HIGHEST);
        auto const last = submission(succeed(), HIGHEST);
        for (auto const& added : {first, task, last}) {
            queue->addTask(added);
        }
        std::shared_ptr<SubmittedTask> picked;

        interrupt([&] { task->setPriority(LOW); }, [&] { picked = queue->getNextTask(); });

        if (!interrupt.happened) {
            picked = queue->getNextTask();
        }
        ASSERT_EQ(picked, first) << interrupt.nth;
        ASSERT_EQ(queue->getNextTask(), last) << interrupt.nth;
        ASSERT_EQ(queue->getNextTask(), task) << interrupt.nth;
    });
}

TYPED_TEST(QueueInterruptionStrategyTest, RankSetBeforeAPickWithoutMemoryCountsAtTheNext) {
    auto const queue = makeQueue<TypeParam>();
    auto const first = submission(succeed(), HIGHEST);
    auto const middle = submission(succeed(), HIGHEST);
    auto const last = submission(succeed(), HIGHEST);
    for (auto const& added : {first, middle, last}) {
        queue->addTask(added);
    }
    middle->setPriority(LOW);
    middle->setRank(5000);
    {
        test::ThreadCalls calls;
        calls.onAllocate = [](std::size_t) { return true; };
        calls.install();
        EXPECT_EQ(queue->getNextTask(), first);
    }
    bool const doubles = std::is_same_v<TypeParam, NoStarveTaskRankingStrategy>;
    EXPECT_EQ(middle->getRank(), doubles ? 10000u : 5000u);

    EXPECT_EQ(queue->getNextTask(), last);
    EXPECT_EQ(queue->getNextTask(), middle);
}

TYPED_TEST(QueueInterruptionStrategyTest, PickLooksAtEachTaskOnlyWhileThereIsNoMemory) {
    auto const queue = makeQueue<TypeParam>();
    auto const lowered = submission(succeed(), HIGHEST);
    queue->addTask(lowered);
    for (int i = 0; i < 10; ++i) {
        queue->addTask(submission(succeed(), HIGHEST));
    }
    lowered->setPriority(LOW);
    lowered->setRank(0x60000000);
    {
        test::ThreadCalls calls;
        calls.onAllocate = [](std::size_t) { return true; };
        calls.install();
        EXPECT_NE(queue->getNextTask(), lowered) << "compared before it is updated";
    }
    queue->getNextTask();

    EXPECT_THAT(mutexesLockedBy([&] { queue->getNextTask(); }), ::testing::SizeIs(2))
        << "that of the queue, and that of its ranks";
}

TYPED_TEST(QueueInterruptionStrategyTest, PriorityRaisedWhileAnotherTaskIsPickedCounts) {
    atEachMoment([&](Interruption& interrupt) {
        auto const queue = makeQueue<TypeParam>();
        auto const task = submission(succeed(), LOW);
        auto const high = submission(succeed(), HIGH);
        auto const higher = submission(succeed(), HIGH);
        higher->setRank(1500000);
        for (auto const& added : {task, high, higher}) {
            queue->addTask(added);
        }
        std::shared_ptr<SubmittedTask> first;

        interrupt([&] { first = queue->getNextTask(); }, [&] { task->setPriority(HIGHEST); });

        if (!interrupt.happened) {
            ASSERT_EQ(first, higher);
            ASSERT_EQ(queue->getNextTask(), high);
        } else if (first != task) {
            ASSERT_EQ(first, higher) << interrupt.nth;
            ASSERT_EQ(queue->getNextTask(), task) << interrupt.nth;
        }
    });
}

TEST_F(QueueInterruptionTest, TaskMayEnterAnotherQueueAsItIsPicked) {
    atEachMoment([&](Interruption& interrupt) {
        auto const first = makeQueue();
        auto const second = makeQueue();
        auto const task = submission();
        first->addTask(task);
        std::shared_ptr<SubmittedTask> picked;

        interrupt([&] { picked = first->getNextTask(); },
                  [&] {
                      task->setRank(5000);
                      second->addTask(task);
                  });

        EXPECT_EQ(picked, task) << interrupt.nth;
        EXPECT_TRUE(first->isEmpty()) << interrupt.nth;
        EXPECT_EQ(second->getNextTask(), interrupt.happened ? task : nullptr) << interrupt.nth;
    });
}

}  // namespace
}  // namespace ovra::concurrent
