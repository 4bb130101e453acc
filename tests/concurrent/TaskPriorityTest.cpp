#include <ovra/concurrent/TaskPriority.h>

#include <cstdint>
#include <ostream>
#include <type_traits>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTask.h>

namespace ovra::concurrent {
namespace {

static_assert(std::is_same_v<std::underlying_type_t<TaskPriority>, std::int32_t>);
static_assert(
    std::is_same_v<decltype(SubmittedTask::HIGHEST_CURRENT_RANK_VALUE), unsigned int const>);
static_assert(SubmittedTask::HIGHEST_CURRENT_RANK_VALUE == 2147483647u);

struct InitialRank {
    std::int32_t priority;
    unsigned int rank;
};

void PrintTo(InitialRank const& row, std::ostream* out) {
    *out << row.priority;
}

class InitialRankTest : public ::testing::TestWithParam<InitialRank> {};

TEST_P(InitialRankTest, FollowsFromThePriority) {
    EXPECT_EQ(submittedTaskPriorityToInitialRank(static_cast<TaskPriority>(GetParam().priority)),
              GetParam().rank);
}

INSTANTIATE_TEST_SUITE_P(TaskPriorityTest, InitialRankTest,
                         ::testing::Values(InitialRank{1, 1}, InitialRank{2, 1000},
                                           InitialRank{3, 1000000}, InitialRank{4, 2147483647},
                                           InitialRank{0, 1}, InitialRank{5, 1}, InitialRank{-1, 1},
                                           InitialRank{-2, 1}, InitialRank{6, 1},
                                           InitialRank{INT32_MAX, 1}, InitialRank{INT32_MIN, 1},
                                           InitialRank{INT32_MIN + 2, 1}));

TEST(TaskPriorityTest, PrioritiesHaveTheirValues) {
    EXPECT_EQ(std::int32_t{LOW}, 1);
    EXPECT_EQ(std::int32_t{NORMAL}, 2);
    EXPECT_EQ(std::int32_t{HIGH}, 3);
    EXPECT_EQ(std::int32_t{HIGHEST}, 4);
    EXPECT_EQ(TaskPriority::HIGH, HIGH);
}

TEST(TaskPriorityTest, HighestStartsAtTheLargestRankThereIs) {
    EXPECT_EQ(submittedTaskPriorityToInitialRank(HIGHEST),
              SubmittedTask::HIGHEST_CURRENT_RANK_VALUE);
}

}  // namespace
}  // namespace ovra::concurrent
