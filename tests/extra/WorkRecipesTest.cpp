// The programs on the guide's page "Work with values, groups and schedules", as a reader would run
// them.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>

namespace ovra::test {
namespace {

using ::testing::MatchesRegex;

class WorkRecipesTest : public BoundedTest {};

Outcome runRecipe(std::string const& name, std::vector<std::string> const& arguments,
                  std::string const& input = "") {
    Command command;
    command.arguments = {WORK_RECIPES + name};
    command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
    command.input = input;
    return run(command);
}

TEST_F(WorkRecipesTest, AValueComesOrTheWorkIsStopped) {
    Outcome const counted = runRecipe("asyncValue", {"100", "1000000"});
    EXPECT_EQ(counted.out, "25 primes\n");
    EXPECT_EQ(counted.exitStatus, 0);
    Outcome const stopped = runRecipe("asyncValue", {"2000000000", "1"});
    EXPECT_EQ(stopped.out, "It takes too long.\n");
    EXPECT_EQ(stopped.exitStatus, 1);
}

TEST_F(WorkRecipesTest, AGroupTakesAllLines) {
    std::string input;
    for (int line = 0; line < 100; ++line) {
        input += "12345\n";
    }
    EXPECT_EQ(runRecipe("boundedGroup", {}, input).out, "500 letters\n");
    EXPECT_EQ(runRecipe("boundedGroup", {}).out, "0 letters\n");
}

TEST_F(WorkRecipesTest, AScheduleRecurs) {
    Outcome const outcome = runRecipe("schedule", {"3"});
    EXPECT_EQ(outcome.out, "2 left\n1 left\n0 left\n");
    EXPECT_EQ(outcome.exitStatus, 0);
}

TEST_F(WorkRecipesTest, TheWatchdogNamesWhatIsStuck) {
    Outcome const outcome = runRecipe("watchdog", {});
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_THAT(
        outcome.out,
        ::testing::AnyOf(MatchesRegex("stuck running [0-9]+ ms\npatient waiting [0-9]+ ms\n"),
                         MatchesRegex("patient waiting [0-9]+ ms\nstuck running [0-9]+ ms\n")));
}

}  // namespace
}  // namespace ovra::test
