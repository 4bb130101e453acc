#include <ovra/concurrent/Executable.h>

#include <cstdint>
#include <ostream>
#include <type_traits>

#include <gtest/gtest.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

static_assert(std::is_abstract_v<Executable>);
static_assert(std::has_virtual_destructor_v<Executable>);
static_assert(sizeof(Executable) == sizeof(void*), "no data of its own");
static_assert(std::is_same_v<std::underlying_type_t<Executable::State>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<Executable::Result>, std::int32_t>);

struct NamedState {
    std::int32_t value;
    char const* name;
};

void PrintTo(NamedState const& row, std::ostream* out) {
    *out << row.value;
}

class StateNameTest : public ::testing::TestWithParam<NamedState> {};

TEST_P(StateNameTest, IsTheEnumerator) {
    EXPECT_STREQ(taskStateToName(static_cast<Executable::State>(GetParam().value)),
                 GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(ExecutableTest, StateNameTest,
                         ::testing::Values(NamedState{1, "UNSCHEDULED"}, NamedState{2, "READY"},
                                           NamedState{3, "EXECUTING"}, NamedState{4, "CANCELLED"},
                                           NamedState{5, "DONE"}, NamedState{0, "UNKNOWN"},
                                           NamedState{6, "UNKNOWN"}, NamedState{-1, "UNKNOWN"},
                                           NamedState{INT32_MAX, "UNKNOWN"},
                                           NamedState{INT32_MIN, "UNKNOWN"}));

TEST(ExecutableTest, StatesHaveTheirValues) {
    EXPECT_EQ(std::int32_t{Executable::UNSCHEDULED}, 1);
    EXPECT_EQ(std::int32_t{Executable::READY}, 2);
    EXPECT_EQ(std::int32_t{Executable::EXECUTING}, 3);
    EXPECT_EQ(std::int32_t{Executable::CANCELLED}, 4);
    EXPECT_EQ(std::int32_t{Executable::DONE}, 5);
}

TEST(ExecutableTest, ResultsHaveTheirValues) {
    EXPECT_EQ(std::int32_t{Executable::NO_RESULT}, 1);
    EXPECT_EQ(std::int32_t{Executable::SUCCESS}, 2);
    EXPECT_EQ(std::int32_t{Executable::FAILURE}, 3);
    EXPECT_EQ(std::int32_t{Executable::ABORTED}, 4);
    EXPECT_EQ(std::int32_t{Executable::REPEAT}, 5);
}

TEST(ExecutableTest, EnumeratorsCanBeNamedThroughTheirEnumeration) {
    EXPECT_EQ(Executable::State::DONE, Executable::DONE);
    EXPECT_EQ(Executable::Result::REPEAT, Executable::REPEAT);
}

TEST(ExecutableTest, ExecuteFollowsTheDestructorInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&Executable::execute), 2u);
    EXPECT_EQ(test::virtualSlotCount("Executable"), 3u);
}

}  // namespace
}  // namespace ovra::concurrent
