#include <ovra/concurrent/SubmittedTasksQueue.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SubmittedTasksQueuePickTest : public test::BoundedTest {};

template <typename Strategy>
class SubmittedTasksQueueOrderTest : public test::BoundedTest {};
TYPED_TEST_SUITE(SubmittedTasksQueueOrderTest, Strategies, StrategyName);

// Answers with a score, whatever its index.
class ScoredTask : public SubmittedTask {
public:
    explicit ScoredTask(unsigned int ownScore, std::vector<std::string>* log = nullptr)
        : SubmittedTask(succeed(), LOW, Callback(), "scored"), score(ownScore), events(log) {}
    unsigned int getRank() const override {
        if (events != nullptr) {
            events->push_back("rank of " + std::to_string(score));
        }
        return score - static_cast<unsigned int>(getUniqueIndex());
    }

    unsigned int score;
    std::vector<std::string>* events;
};

// --- order

TYPED_TEST(SubmittedTasksQueueOrderTest, HigherRankRunsFirst) {
    auto const queue = makeQueue<TypeParam>();
    auto const low = submission(succeed(), LOW);
    auto const highest = submission(succeed(), HIGHEST);
    auto const normal = submission(succeed(), NORMAL);
    auto const high = submission(succeed(), HIGH);
    for (auto const& task : {low, highest, normal, high}) {
        queue->addTask(task);
    }

    EXPECT_EQ(queue->getNextTask(), highest);
    EXPECT_EQ(queue->getNextTask(), high);
    EXPECT_EQ(queue->getNextTask(), normal);
    EXPECT_EQ(queue->getNextTask(), low);
    EXPECT_EQ(queue->getNextTask(), nullptr);
    EXPECT_TRUE(queue->isEmpty());
}

TYPED_TEST(SubmittedTasksQueueOrderTest, AmongEqualPrioritiesTheOldestRunsFirst) {
    for (TaskPriority const priority : {LOW, NORMAL, HIGH, HIGHEST}) {
        auto const queue = makeQueue<TypeParam>();
        std::vector<std::shared_ptr<SubmittedTask>> added;
        for (int i = 0; i < 50; ++i) {
            added.push_back(submission(succeed(), priority));
            queue->addTask(added.back());
        }
        for (auto const& task : added) {
            ASSERT_EQ(queue->getNextTask(), task) << "at priority " << priority;
        }
    }
}

TYPED_TEST(SubmittedTasksQueueOrderTest, TheOldestIsTheOneMadeFirst) {
    auto const queue = makeQueue<TypeParam>();
    auto const made =
        std::vector<std::shared_ptr<SubmittedTask>>{submission(), submission(), submission()};
    queue->addTask(made[2]);
    queue->addTask(made[0]);
    queue->addTask(made[1]);

    EXPECT_EQ(queue->getNextTask(), made[0]);
    EXPECT_EQ(queue->getNextTask(), made[1]);
    EXPECT_EQ(queue->getNextTask(), made[2]);
}

TYPED_TEST(SubmittedTasksQueueOrderTest, IndexOutweighsAsMuchRankAsThereAreSubmissionsBetween) {
    // From LOW to NORMAL it is a difference in rank of 999.
    struct Row {
        int submissionsBetween;
        bool lowFirst;
    };
    for (Row const row : {Row{998, false}, Row{999, true}, Row{997, false}, Row{5000, true}}) {
        auto const queue = makeQueue<TypeParam>();
        auto const low = submission(succeed(), LOW);
        for (int i = 0; i < row.submissionsBetween; ++i) {
            submission();
        }
        auto const normal = submission(succeed(), NORMAL);
        ASSERT_EQ(low->getUniqueIndex() - normal->getUniqueIndex(), row.submissionsBetween + 1);
        queue->addTask(low);
        queue->addTask(normal);

        EXPECT_EQ(queue->getNextTask(), row.lowFirst ? low : normal) << row.submissionsBetween;
    }
}

TEST_F(SubmittedTasksQueuePickTest, OnEqualScoresTheOneAddedLastRunsFirst) {
    auto const queue = makeQueue();
    auto const old = submission(succeed(), LOW);
    auto const young = submission(succeed(), LOW);
    old->setRank(1000);
    young->setRank(1001);
    queue->addTask(old);
    queue->addTask(young);
    EXPECT_EQ(queue->getNextTask(), young);
    EXPECT_EQ(queue->getNextTask(), old);

    queue->addTask(young);
    queue->addTask(old);
    EXPECT_EQ(queue->getNextTask(), old);
    EXPECT_EQ(queue->getNextTask(), young);
}

TEST_F(SubmittedTasksQueuePickTest, ScoresAreComparedWithoutASign) {
    auto const queue = makeQueue();
    auto const positive = std::make_shared<ScoredTask>(0x7fffffffu);
    auto const negative = std::make_shared<ScoredTask>(0x80000000u);
    auto const largest = std::make_shared<ScoredTask>(0xffffffffu);
    for (auto const& task : {largest, negative, positive}) {
        queue->addTask(task);
    }

    EXPECT_EQ(queue->getNextTask(), largest);
    EXPECT_EQ(queue->getNextTask(), negative);
    EXPECT_EQ(queue->getNextTask(), positive);
}

TEST_F(SubmittedTasksQueuePickTest, ScoresWrapAt32Bits) {
    class Huge : public SubmittedTask {
    public:
        Huge() : SubmittedTask(succeed(), LOW, Callback(), "huge") {}
        unsigned int getRank() const override { return 0xffffffffu; }
    };
    auto const queue = makeQueue();
    auto const huge = std::make_shared<Huge>();  // Scores its index minus 1.
    auto const low = submission(succeed(), LOW);
    queue->addTask(huge);
    queue->addTask(low);

    EXPECT_EQ(queue->getNextTask(), low);
    EXPECT_EQ(queue->getNextTask(), huge);
}

TEST_F(SubmittedTasksQueuePickTest, ScoreOfZeroIsNeverChosen) {
    auto const queue = makeQueue();
    auto const zero = std::make_shared<ScoredTask>(0u);
    auto const one = std::make_shared<ScoredTask>(1u);
    queue->addTask(zero);
    EXPECT_EQ(queue->getNextTask(), nullptr);
    queue->addTask(one);

    EXPECT_EQ(queue->getNextTask(), one);
    EXPECT_EQ(queue->getNextTask(), nullptr);
    EXPECT_FALSE(queue->isEmpty());
    zero->score = 7;
    EXPECT_EQ(queue->getNextTask(), zero);
}

TEST_F(SubmittedTasksQueuePickTest, PriorityChangesCountAtTheNextPick) {
    auto const queue = makeQueue();
    auto const first = submission();
    auto const second = submission();
    auto const third = submission();
    queue->addTask(first);
    auto const handle = queue->addTask(second);
    auto const lastHandle = queue->addTask(third);

    handle->updatePriority(HIGHEST);
    EXPECT_EQ(queue->getNextTask(), second);
    lastHandle->updatePriority(HIGH);
    first->setRank(2000000);
    EXPECT_EQ(queue->getNextTask(), first);
    EXPECT_EQ(queue->getNextTask(), third);
}

TEST_F(SubmittedTasksQueuePickTest, TaskAddedOutOfOrderOutlastsTheOthersOfItsPriority) {
    auto const queue = makeQueue();
    auto const oldest = submission();
    std::vector<std::shared_ptr<SubmittedTask>> others(1000);
    for (auto& other : others) {
        other = submission();
        queue->addTask(other);
    }
    queue->addTask(oldest);
    for (auto const& other : others) {
        other->setPriority(HIGH);
    }

    for (auto const& other : others) {
        ASSERT_EQ(queue->getNextTask(), other);
    }
    EXPECT_EQ(queue->getNextTask(), oldest);
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueuePickTest, PriorityMayGoAndComeBack) {
    auto const queue = makeQueue();
    auto const first = submission(succeed(), HIGHEST);
    auto const second = submission(succeed(), HIGHEST);
    auto const others = {submission(), submission(), submission()};
    auto const task = submission();
    queue->addTask(first);
    queue->addTask(second);
    for (auto const& other : others) {
        queue->addTask(other);
    }
    queue->addTask(task);

    task->setPriority(HIGH);
    EXPECT_EQ(queue->getNextTask(), first);
    task->setPriority(NORMAL);
    EXPECT_EQ(queue->getNextTask(), second);
    task->setPriority(HIGH);
    EXPECT_EQ(queue->getNextTask(), task);
    for (auto const& other : others) {
        EXPECT_EQ(queue->getNextTask(), other);
    }
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueuePickTest, SameTaskAddedTwiceLeavesAtOnce) {
    auto const queue = makeQueue();
    auto const twice = submission(succeed(), HIGH);
    auto const other = submission();
    queue->addTask(twice);
    queue->addTask(other);
    queue->addTask(twice);

    EXPECT_EQ(queue->getNextTask(), twice);
    EXPECT_EQ(twice.use_count(), 1);
    EXPECT_EQ(queue->getNextTask(), other);
    EXPECT_EQ(queue->getNextTask(), nullptr);
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueuePickTest, SameTaskAddedTwiceLeavesAtOnceWithoutAHandleInBetween) {
    auto const queue = makeQueue();
    auto const twice = submission(succeed(), HIGH);
    queue->addTask(twice);
    twice->setHandle(nullptr);
    queue->addTask(twice);

    EXPECT_EQ(queue->getNextTask(), twice);
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(SubmittedTasksQueuePickTest, SameTaskAddedTwiceAgesTwiceAtAPick) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const twice = submission(succeed(), LOW);
    auto const urgent = submission(succeed(), HIGHEST);
    queue->addTask(twice);
    queue->addTask(urgent);
    queue->addTask(twice);

    EXPECT_EQ(queue->getNextTask(), urgent);
    EXPECT_EQ(twice->getRank(), 4u);
}

// --- the strategy

TEST_F(SubmittedTasksQueuePickTest, StrategyDoublesTheRankOfEveryQueuedTaskAtAPick) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const low = submission(succeed(), LOW);
    auto const normal = submission(succeed(), NORMAL);
    auto const high = submission(succeed(), HIGH);
    auto const outside = submission(succeed(), NORMAL);
    for (auto const& task : {low, normal, high}) {
        queue->addTask(task);
    }

    EXPECT_EQ(queue->getNextTask(), high);
    EXPECT_EQ(high->getRank(), 2000000u) << "the one that leaves ages too";
    EXPECT_EQ(normal->getRank(), 2000u);
    EXPECT_EQ(low->getRank(), 2u);
    EXPECT_EQ(outside->getRank(), 1000u);

    EXPECT_EQ(queue->getNextTask(), normal);
    EXPECT_EQ(high->getRank(), 2000000u) << "it has left";
    EXPECT_EQ(normal->getRank(), 4000u);
    EXPECT_EQ(low->getRank(), 4u);
}

TEST_F(SubmittedTasksQueuePickTest, RankBelowThatOfThePriorityIsLiftedAtThePick) {
    // Two threads leave it so when the one sets a rank while the other raises the priority: the
    // first may look at the old priority and store its rank last.
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const task = submission(succeed(), HIGH);
    task->rankedEntry().rank = 5;
    queue->addTask(task);
    queue->addTask(submission(succeed(), HIGHEST));

    EXPECT_NE(queue->getNextTask(), task);

    EXPECT_EQ(task->getRank(), 1000000u);
}

TEST_F(SubmittedTasksQueuePickTest, StrategyOfStrictPriorityNeverChangesARank) {
    auto const queue = makeQueue();
    auto const low = submission(succeed(), LOW);
    queue->addTask(low);
    for (int i = 0; i < 40; ++i) {
        queue->addTask(submission(succeed(), HIGHEST));
    }
    for (int i = 0; i < 40; ++i) {
        ASSERT_NE(queue->getNextTask(), low);
        ASSERT_EQ(low->getRank(), 1u);
    }
    EXPECT_EQ(queue->getNextTask(), low);
}

TEST_F(SubmittedTasksQueuePickTest, WaitingWorkDoesNotStarve) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const low = submission(succeed(), LOW);
    queue->addTask(low);
    int picks = 0;
    std::shared_ptr<SubmittedTask> picked;
    while (picked != low) {
        queue->addTask(submission(succeed(), HIGHEST));
        queue->addTask(submission(succeed(), HIGHEST));
        picked = queue->getNextTask();
        ++picks;
    }

    // After 31 picks it stands at the cap too, and is the oldest.
    EXPECT_EQ(picks, 32);
}

TEST_F(SubmittedTasksQueuePickTest, AgedRankCountsOnlyFromTheNextPick) {
    // The scan compares a task before it updates it.
    auto const queue = makeScriptedQueue([](SubmittedTask* task) { task->setRank(2000000000); });
    auto const high = submission(succeed(), HIGH);
    auto const low = submission(succeed(), LOW);
    queue->addTask(high);
    queue->addTask(low);

    EXPECT_EQ(queue->getNextTask(), high);
    EXPECT_EQ(low->getRank(), 2000000000u);
}

TEST_F(SubmittedTasksQueuePickTest, StrategyIsAskedForEachTaskRightAfterItsScoreNewestFirst) {
    std::vector<std::string> events;
    auto const queue = makeScriptedQueue([&events](SubmittedTask* task) {
        events.push_back("update of " + std::to_string(static_cast<ScoredTask*>(task)->score));
    });
    for (unsigned int const score : {10u, 30u, 20u}) {
        queue->addTask(std::make_shared<ScoredTask>(score, &events));
    }
    EXPECT_THAT(events, IsEmpty());

    queue->getNextTask();
    EXPECT_THAT(events, ElementsAre("rank of 20", "update of 20", "rank of 30", "update of 30",
                                    "rank of 10", "update of 10"));
    events.clear();
    queue->getNextTask();
    EXPECT_THAT(events, ElementsAre("rank of 20", "update of 20", "rank of 10", "update of 10"));
}

TEST_F(SubmittedTasksQueuePickTest, StrategyMayChangeTheTasksThatTheScanHasYetToReach) {
    std::shared_ptr<SubmittedTask> oldest;
    auto const queue = makeScriptedQueue([&oldest](SubmittedTask* task) {
        if (task != oldest.get()) {
            oldest->setRank(2000000000);
        }
    });
    oldest = submission(succeed(), LOW);
    auto const high = submission(succeed(), HIGH);
    queue->addTask(oldest);
    queue->addTask(high);

    EXPECT_EQ(queue->getNextTask(), oldest);
    oldest.reset();
}

TEST_F(SubmittedTasksQueuePickTest, StrategyIsNotAskedOnAnEmptyQueue) {
    int updates = 0;
    auto const queue = makeScriptedQueue([&updates](SubmittedTask*) { ++updates; });
    EXPECT_EQ(queue->getNextTask(), nullptr);

    EXPECT_EQ(updates, 0);
}

// Throws from `getRank()`, as often as `throws` says.
class ThrowingTask : public SubmittedTask {
public:
    ThrowingTask() : SubmittedTask(succeed(), LOW, Callback(), "throwing") {}
    unsigned int getRank() const override {
        if (throws-- > 0) {
            throw std::runtime_error("no rank");
        }
        return SubmittedTask::getRank();
    }

    mutable int throws = 0;
};

TEST_F(SubmittedTasksQueuePickTest, OverrideThatThrowsLeavesTheRanksOfNewerTasksUpdated) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const older = submission(succeed(), LOW);
    auto const throwing = std::make_shared<ThrowingTask>();
    auto const newer = submission(succeed(), LOW);
    for (std::shared_ptr<SubmittedTask> const& task :
         {older, std::shared_ptr<SubmittedTask>(throwing), newer}) {
        queue->addTask(task);
    }
    throwing->throws = 2;
    EXPECT_THROW(queue->getNextTask(), std::runtime_error);
    EXPECT_THROW(queue->getNextTask(), std::runtime_error);
    EXPECT_EQ(older->getRank(), 1u);
    EXPECT_EQ(newer->getRank(), 4u);

    auto const newest = submission(succeed(), NORMAL);
    queue->addTask(newest);
    newer->setRank(5);
    older->setRank(7);
    EXPECT_EQ(queue->getNextTask(), newest);
    EXPECT_EQ(newest->getRank(), 2000u);
    EXPECT_EQ(newer->getRank(), 10u);
    EXPECT_EQ(throwing->getRank(), 2u);
    EXPECT_EQ(older->getRank(), 14u);
    EXPECT_EQ(queue->getNextTask(), older);
    EXPECT_EQ(queue->getNextTask(), newer);
    EXPECT_EQ(queue->getNextTask(), throwing);
}

TEST_F(SubmittedTasksQueuePickTest, QueueThatDiesAfterAScanThatThrewLeavesTheRanks) {
    auto queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const throwing = std::make_shared<ThrowingTask>();
    auto const newer = submission(succeed(), LOW);
    queue->addTask(throwing);
    queue->addTask(newer);
    throwing->throws = 1;
    EXPECT_THROW(queue->getNextTask(), std::runtime_error);
    queue.reset();
    EXPECT_EQ(newer->getRank(), 2u);
}

TEST_F(SubmittedTasksQueuePickTest, StrategyThatThrowsLeavesTheQueueAsItWas) {
    bool fails = true;
    auto const queue = makeScriptedQueue([&fails](SubmittedTask*) {
        if (fails) {
            throw std::runtime_error("no opinion");
        }
    });
    auto const task = submission();
    queue->addTask(task);

    EXPECT_THROW(queue->getNextTask(), std::runtime_error);
    fails = false;

    EXPECT_FALSE(queue->isEmpty());
    EXPECT_EQ(queue->getNextTask(), task);
}

TEST_F(SubmittedTasksQueuePickTest, SaysThatItIsOpenWhileItsLockIsHeld) {
    test::Gate inside;
    test::Gate release;
    auto const queue = makeScriptedQueue([&](SubmittedTask*) {
        inside.open();
        release.wait();
    });
    queue->addTask(submission());
    std::thread picker([&queue] { queue->getNextTask(); });
    inside.wait();

    EXPECT_FALSE(queue->isClosed());

    release.open();
    picker.join();
}

}  // namespace
}  // namespace ovra::concurrent
