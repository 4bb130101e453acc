// What the rounds of `ovra-manifest watch` find, and how often they say it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <tests/examples/WatchFixture.h>

namespace {

using namespace ovra::test;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAreArray;

class WatchTest : public WatchFixture {
protected:
    static std::vector<std::string> lines(std::string const& text) {
        std::vector<std::string> result;
        for (std::size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
             begin = end + 1) {
            result.push_back(text.substr(begin, end - begin));
        }
        return result;
    }
};

TEST_F(WatchTest, WhereAllIsWellNothingIsSaid) {
    start();
    EXPECT_EQ("files: 2, findings: 0", roundEnded(1));
    EXPECT_EQ("files: 2, findings: 0", nextRound(2));
    Outcome const outcome = end();
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.out + outcome.err, IsEmpty());
}

TEST_F(WatchTest, EachFindingIsReportedOnce) {
    start();
    roundEnded(1);
    scratch.write("d/a", "other");
    std::filesystem::remove(scratch.path("d/b"));
    scratch.write("d/c", "gamma");
    EXPECT_EQ("files: 2, findings: 3", nextRound(2));
    EXPECT_EQ("files: 2, findings: 3", nextRound(3));
    EXPECT_THAT(lines(end().out),
                UnorderedElementsAreArray({"d/a: CHANGED", "d/b: MISSING", "d/c: NEW"}));
}

TEST_F(WatchTest, FindingIsReportedAgainWhenItChanges) {
    start();
    roundEnded(1);
    scratch.write("d/a", "other");
    nextRound(2);
    scratch.write("d/a", "yet another");
    nextRound(3);
    std::filesystem::remove(scratch.path("d/a"));
    nextRound(4);
    scratch.makeDirectory("d/a");
    nextRound(5);
    std::filesystem::remove(scratch.path("d/a"));
    scratch.write("d/a", "alpha");
    nextRound(6);
    nextRound(7);
    EXPECT_EQ("d/a: CHANGED\nd/a: CHANGED\nd/a: MISSING\nd/a: UNREADABLE (WRONG_KIND)\nd/a: OK\n",
              end().out);
}

TEST_F(WatchTest, NewFileIsReportedUntilItGoesOrIsListed) {
    start();
    roundEnded(1);
    scratch.write("d/e/c", "alpha");
    scratch.write("d/f", "alpha");
    nextRound(2);
    scratch.write("d/f", "its contents do not matter");
    nextRound(3);
    std::filesystem::remove(scratch.path("d/f"));
    nextRound(4);
    scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n" + ALPHA + "  d/e/c\n");
    EXPECT_EQ("files: 3, findings: 0", nextRound(5));
    EXPECT_THAT(lines(end().out),
                UnorderedElementsAreArray({"d/e/c: NEW", "d/f: NEW", "d/f: REMOVED", "d/e/c: OK"}));
}

TEST_F(WatchTest, FileThatIsNoLongerListedIsNoFinding) {
    std::filesystem::remove(scratch.path("d/b"));
    for (std::vector<std::string> const& options :
         {{}, std::vector<std::string>{"--listed-only"}}) {
        scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n");
        start(options);
        EXPECT_EQ("files: 2, findings: 1", roundEnded(1));
        scratch.write("manifest", ALPHA + "  d/a\n");
        EXPECT_EQ("files: 1, findings: 0", nextRound(2));
        EXPECT_EQ("d/b: MISSING\nd/b: NOT LISTED\n", end().out);
    }
}

TEST_F(WatchTest, ListedPathMayEndWithASeparator) {
    scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n" + BETA + "  d/a/\n");
    start();
    EXPECT_EQ("files: 3, findings: 1", roundEnded(1));
    EXPECT_EQ("files: 3, findings: 1", nextRound(2));
    EXPECT_THAT(end().out, StartsWith("d/a/: "));
}

TEST_F(WatchTest, LostDirectoryIsReportedOnceAndItsReturnToo) {
    start();
    roundEnded(1);
    std::filesystem::rename(scratch.path("d"), scratch.path("lost"));
    EXPECT_EQ("files: 2, findings: 3", nextRound(2));
    nextRound(3);
    std::filesystem::rename(scratch.path("lost"), scratch.path("d"));
    EXPECT_EQ("files: 2, findings: 0", nextRound(4));
    EXPECT_THAT(lines(end().out),
                UnorderedElementsAreArray({"d/: MISSING", "d/a: MISSING", "d/b: MISSING", "d/: OK",
                                           "d/a: OK", "d/b: OK"}));
}

TEST_F(WatchTest, WhatCannotBeReadIsNamedWithTheReason) {
    scratch.permit("d/a", 0);
    scratch.write("d/locked/new", "x");
    scratch.permit("d/locked", 0);
    Command unprivileged = command({});
    unprivileged.unprivileged = true;
    start(unprivileged);
    EXPECT_EQ("files: 2, findings: 2", roundEnded(1));
    nextRound(2);
    scratch.permit("d/locked", 0700);
    nextRound(3);
    EXPECT_THAT(lines(end().out), UnorderedElementsAreArray(
                                      {"d/a: UNREADABLE (DENIED)", "d/locked/: UNREADABLE (DENIED)",
                                       "d/locked/: OK", "d/locked/new: NEW"}));
}

TEST_F(WatchTest, NewFilesKeepTheirFindingWhileTheirDirectoryCannotBeRead) {
    scratch.write("d/e/new", "x");
    Command unprivileged = command({});
    unprivileged.unprivileged = true;
    start(unprivileged);
    roundEnded(1);
    scratch.permit("d/e", 0);
    EXPECT_EQ("files: 2, findings: 2", nextRound(2));
    scratch.permit("d/e", 0700);
    EXPECT_EQ("files: 2, findings: 1", nextRound(3));
    EXPECT_EQ("d/e/new: NEW\nd/e/: UNREADABLE (DENIED)\nd/e/: OK\n", end().out);
}

TEST_F(WatchTest, NamedPipeDoesNotBlock) {
    std::filesystem::remove(scratch.path("d/a"));
    ASSERT_EQ(0, mkfifo(scratch.path("d/a").c_str(), 0600));
    Outcome const outcome = runOnce();
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("d/a: UNREADABLE (WRONG_KIND)\n", outcome.out);
}

TEST_F(WatchTest, RoundsEndTheProgramWithTheirResult) {
    EXPECT_EQ(0, runOnce().exitStatus);
    scratch.write("d/b", "other");
    Outcome const outcome = runOnce();
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("d/b: CHANGED\n", outcome.out);
}

TEST_F(WatchTest, RoundsFollowOneAnother) {
    Command often = command({"--rounds", "5"});
    often.arguments[4] = "0.02";
    start(often);
    for (unsigned int number = 1; number <= 5; ++number) {
        roundEnded(number);
    }
    EXPECT_EQ(0, process->finish().exitStatus);
}

TEST_F(WatchTest, ManifestThatCannotBeReadEndsTheProgramAtItsStartOnly) {
    Command missing = command({});
    missing.arguments[2] = "missing";
    Outcome const outcome = run(missing);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: missing: No such file or directory\n", outcome.err);

    start();
    roundEnded(1);
    std::filesystem::rename(scratch.path("manifest"), scratch.path("m"));
    EXPECT_EQ("manifest: No such file or directory", nextRound(2));
    EXPECT_EQ("manifest: No such file or directory", nextRound(2));
    std::filesystem::rename(scratch.path("m"), scratch.path("manifest"));
    EXPECT_EQ("files: 2, findings: 0", nextRound(2));
    Outcome const after = end();
    EXPECT_EQ(0, after.exitStatus);
    EXPECT_EQ("ovra-manifest: manifest: No such file or directory\n", after.err) << "once";
}

TEST_F(WatchTest, NewFilesAreLookedForWhereTheOptionsSay) {
    scratch.write("d/c", "x");
    scratch.write("e/f", "x");
    EXPECT_EQ("d/c: NEW\n", runOnce().out);
    EXPECT_EQ("e/f: NEW\n", runOnce({"--new", "e"}).out);
    EXPECT_THAT(lines(runOnce({"--new", "e/", "--new", "d"}).out),
                UnorderedElementsAreArray({"d/c: NEW", "e/f: NEW"}));
    EXPECT_THAT(runOnce({"--listed-only"}).out, IsEmpty());
}

TEST_F(WatchTest, OwnFilesAreNotNew) {
    scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n");
    Command inside = command({"--log", "d", "--status", "d/status", "--max-bytes", "1000"});
    std::filesystem::rename(scratch.path("manifest"), scratch.path("d/manifest"));
    inside.arguments[2] = "d/manifest";
    for (auto const* name : {"d/ovra.log.1", "d/ovra.log.2", "d/ovra.log.crash"}) {
        scratch.write(name, "of an earlier run");
    }
    start(inside);
    EXPECT_EQ("files: 2, findings: 0", roundEnded(1));
    EXPECT_EQ("files: 2, findings: 0", nextRound(2));
    end();
    EXPECT_TRUE(scratch.exists("d/status"));
    EXPECT_TRUE(scratch.exists("d/ovra.log"));
}

TEST_F(WatchTest, NamesAreShownAsOneLine) {
    scratch.write("d/new\nline", "x");
    scratch.write("d/100%s", "x");
    start({"--log", "log"});
    roundEnded(1);
    EXPECT_THAT(lines(end().out),
                UnorderedElementsAreArray({"\\d/new\\nline: NEW", "d/100%s: NEW"}));
    EXPECT_THAT(scratch.read("log"), HasSubstr("[watch():ERROR] 'd/new'$'\\n''line': NEW\n"));
    EXPECT_THAT(scratch.read("log"), HasSubstr("[watch():ERROR] d/100%s: NEW\n"));
}

}  // namespace
