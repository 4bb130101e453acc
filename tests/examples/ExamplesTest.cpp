#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::UnorderedElementsAre;

using ExamplesTest = BoundedTest;

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

Outcome runExample(std::vector<std::string> const& arguments) {
    Command command;
    command.arguments = arguments;
    return run(command);
}

TEST_F(ExamplesTest, TasksRunInTheOrderOfTheirUrgency) {
    Outcome const outcome = runExample({EXAMPLE_TASKS});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.err, IsEmpty());
    auto lines = linesOf(outcome.out);
    ASSERT_EQ(5u, lines.size()) << outcome.out;
    EXPECT_EQ("first: raised to HIGHEST", lines[0]);
    EXPECT_EQ("second: queued at HIGH", lines[1]);
    EXPECT_EQ("third: queued at LOW", lines[2]);
    // A callback and the waiter are not ordered.
    std::sort(lines.begin() + 3, lines.end());
    EXPECT_EQ("printing failed: out of paper", lines[3]);
    EXPECT_EQ("printing has ended", lines[4]);
}

TEST_F(ExamplesTest, LoggingReachesEverySink) {
    ScratchDirectory const scratch;
    Outcome const outcome = runExample({EXAMPLE_LOGGING, scratch.path()});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_EQ(
        "[main():INFO] The level is INFO now.\n"
        "[main():WARNING] The battery is at 12 per cent.\n"
        "[main():INFO] Charged to 100%%.\n"
        "2 problems\n",
        outcome.out);
    EXPECT_EQ("[main():ERROR] The battery is empty.\n", outcome.err);
    EXPECT_EQ(
        "[main():INFO] The level is INFO now.\n"
        "[main():WARNING] The battery is at 12 per cent.\n"
        "[main():ERROR] The battery is empty.\n"
        "[main():INFO] Charged to 100%%.\n",
        scratch.read("ovra.log"));
}

TEST_F(ExamplesTest, FilesAreListedAndRemovedAgain) {
    Outcome const outcome = runExample({EXAMPLE_FILES});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.err, IsEmpty());
    auto const lines = linesOf(outcome.out);
    ASSERT_EQ(6u, lines.size()) << outcome.out;
    // The first three in whatever order the system lists them.
    EXPECT_THAT(lines, IsSupersetOf({"latest is a link", "archive/", "  notes.txt, 18 bytes",
                                     "final.txt, 18 bytes", "done"}));
    std::string const place = "final with .txt in ";
    ASSERT_EQ(0u, lines[4].find(place));
    EXPECT_FALSE(std::filesystem::exists("/tmp/" + lines[4].substr(place.size())));
}

}  // namespace
