#include <ovra/concurrent/TaskRankingStrategy.h>

#include <memory>
#include <ostream>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/RandomSource.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

static_assert(std::is_abstract_v<TaskRankingStrategy>);
static_assert(std::has_virtual_destructor_v<TaskRankingStrategy>);
static_assert(std::is_convertible_v<HighestPriorityTaskRankingStrategy*, TaskRankingStrategy*>);
static_assert(std::is_convertible_v<NoStarveTaskRankingStrategy*, TaskRankingStrategy*>);
static_assert(sizeof(TaskRankingStrategy) == sizeof(void*), "no data");
static_assert(sizeof(HighestPriorityTaskRankingStrategy) == sizeof(void*), "no data");
static_assert(sizeof(NoStarveTaskRankingStrategy) == sizeof(void*), "no data");

constexpr unsigned int CAP = SubmittedTask::HIGHEST_CURRENT_RANK_VALUE;

// Answers with a rank of its own, and counts how often it is asked.
class RankLiar : public SubmittedTask {
public:
    explicit RankLiar(unsigned int toAnswer)
        : SubmittedTask(succeed(), LOW, Callback(), "liar"), answer(toAnswer) {}
    unsigned int getRank() const override {
        ++asked;
        return answer;
    }
    unsigned int stored() const { return SubmittedTask::getRank(); }

    unsigned int answer;
    mutable int asked = 0;
};

TEST(HighestPriorityTaskRankingStrategyTest, LeavesEveryRankAsItIs) {
    HighestPriorityTaskRankingStrategy strategy;
    for (unsigned int const rank : {1u, 2u, 1000u, 1234567u, CAP - 1, CAP}) {
        auto const task = submission(succeed(), LOW);
        task->setRank(rank);
        for (int pass = 0; pass < 40; ++pass) {
            strategy.updateRank(task.get());
        }
        EXPECT_EQ(task->getRank(), rank);
    }
}

TEST(HighestPriorityTaskRankingStrategyTest, KeepsTheInitialRankOfEveryPriority) {
    HighestPriorityTaskRankingStrategy strategy;
    for (TaskPriority const priority : {LOW, NORMAL, HIGH, HIGHEST}) {
        auto const task = submission(succeed(), priority);
        strategy.updateRank(task.get());
        EXPECT_EQ(task->getRank(), submittedTaskPriorityToInitialRank(priority));
    }
}

TEST(HighestPriorityTaskRankingStrategyTest, DoesNotStoreWhatASubclassAnswers) {
    HighestPriorityTaskRankingStrategy strategy;
    RankLiar task(77);

    strategy.updateRank(&task);

    EXPECT_EQ(task.stored(), 1u);
}

struct Ageing {
    TaskPriority priority;
    int passesToTheCap;
    unsigned int lastBelowTheCap;
};

void PrintTo(Ageing const& row, std::ostream* out) {
    *out << "priority " << row.priority;
}

class NoStarveAgeingTest : public ::testing::TestWithParam<Ageing> {};

TEST_P(NoStarveAgeingTest, DoublesTheRankUpToTheCap) {
    NoStarveTaskRankingStrategy strategy;
    auto const task = submission(succeed(), GetParam().priority);
    unsigned int expected = submittedTaskPriorityToInitialRank(GetParam().priority);

    for (int pass = 1; pass < GetParam().passesToTheCap; ++pass) {
        strategy.updateRank(task.get());
        expected *= 2;
        ASSERT_EQ(task->getRank(), expected) << "after pass " << pass;
    }
    if (GetParam().passesToTheCap > 0) {
        EXPECT_EQ(task->getRank(), GetParam().lastBelowTheCap);
        strategy.updateRank(task.get());
    }
    EXPECT_EQ(task->getRank(), CAP);
    strategy.updateRank(task.get());
    EXPECT_EQ(task->getRank(), CAP) << "stays there";
}

INSTANTIATE_TEST_SUITE_P(TaskRankingStrategyTest, NoStarveAgeingTest,
                         ::testing::Values(Ageing{LOW, 31, 1073741824},
                                           Ageing{static_cast<TaskPriority>(9), 31, 1073741824},
                                           Ageing{NORMAL, 22, 2097152000},
                                           Ageing{HIGH, 12, 2048000000}, Ageing{HIGHEST, 0, 0}));

TEST(NoStarveTaskRankingStrategyTest, DoublesOddRanks) {
    NoStarveTaskRankingStrategy strategy;
    auto const task = submission(succeed(), LOW);
    task->setRank(3);

    strategy.updateRank(task.get());
    EXPECT_EQ(task->getRank(), 6u);

    task->setRank(0x3fffffff);
    strategy.updateRank(task.get());
    EXPECT_EQ(task->getRank(), 0x7ffffffeu);
    strategy.updateRank(task.get());
    EXPECT_EQ(task->getRank(), CAP);
}

TEST(NoStarveTaskRankingStrategyTest, NeverLowersARank) {
    NoStarveTaskRankingStrategy strategy;
    test::RandomSource random(test::runSeed());
    for (int i = 0; i < 1000; ++i) {
        auto const task = submission(succeed(), LOW);
        task->setRank(random.word() >> random.below(32));
        unsigned int const before = task->getRank();

        strategy.updateRank(task.get());

        ASSERT_GE(task->getRank(), before) << test::seedNote();
    }
}

struct Doubling {
    unsigned int answered;
    unsigned int stored;
};

void PrintTo(Doubling const& row, std::ostream* out) {
    *out << row.answered;
}

class NoStarveAnswerTest : public ::testing::TestWithParam<Doubling> {};

TEST_P(NoStarveAnswerTest, StoresTheLargerOfTheRankAndItsDouble) {
    NoStarveTaskRankingStrategy strategy;
    RankLiar task(GetParam().answered);

    strategy.updateRank(&task);

    EXPECT_EQ(task.stored(), GetParam().stored);
    EXPECT_EQ(task.asked, 1);
}

// Above the cap the double wraps, down to 0 for 0x80000000: the rank itself is then the larger.
INSTANTIATE_TEST_SUITE_P(TaskRankingStrategyTest, NoStarveAnswerTest,
                         ::testing::Values(Doubling{0, 1}, Doubling{1, 2}, Doubling{500, 1000},
                                           Doubling{0x3fffffff, 0x7ffffffe},
                                           Doubling{0x40000000, CAP}, Doubling{CAP, CAP},
                                           Doubling{0x80000000u, CAP}, Doubling{0x80000001u, CAP},
                                           Doubling{0xc0000000u, CAP}, Doubling{0xffffffffu, CAP}));

TEST(NoStarveTaskRankingStrategyTest, KeepsTheFloorOfThePriority) {
    NoStarveTaskRankingStrategy strategy;
    RankLiar task(3);
    task.setPriority(NORMAL);

    strategy.updateRank(&task);

    EXPECT_EQ(task.stored(), 1000u);
}

TEST(TaskRankingStrategyTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&TaskRankingStrategy::updateRank), 2u);
    EXPECT_EQ(test::virtualSlot(&HighestPriorityTaskRankingStrategy::updateRank), 2u);
    EXPECT_EQ(test::virtualSlot(&NoStarveTaskRankingStrategy::updateRank), 2u);
    EXPECT_EQ(test::virtualSlotCount("TaskRankingStrategy"), 3u);
    EXPECT_EQ(test::virtualSlotCount("HighestPriorityTaskRankingStrategy"), 3u);
    EXPECT_EQ(test::virtualSlotCount("NoStarveTaskRankingStrategy"), 3u);
}

}  // namespace
}  // namespace ovra::concurrent
