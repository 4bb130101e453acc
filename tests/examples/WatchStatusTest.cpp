// What `ovra-manifest watch` keeps from one run to the next.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <set>

#include <examples/manifest/watch/WatchStatus.h>
#include <tests/examples/HungFile.h>
#include <tests/examples/WatchFixture.h>
#include <tests/support/RandomSource.h>

namespace {

using namespace ovra::test;
using manifest::Finding;
using manifest::WatchStatus;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class WatchStatusTest : public WatchFixture {
protected:
    // What is in the status file now. Empty, and a failure of the test, if that is damaged.
    WatchStatus status(std::map<std::string, Finding>& findings) const {
        auto const result = manifest::fromJson(
            scratch.read("status"),
            [&](std::string const& path, Finding const& finding) { findings[path] = finding; });
        EXPECT_TRUE(result) << scratch.read("status");
        return result.value_or(WatchStatus());
    }
    WatchStatus status() const {
        std::map<std::string, Finding> findings;
        return status(findings);
    }
};

TEST_F(WatchStatusTest, NextRunGoesOnFromIt) {
    scratch.write("d/a", "other");
    EXPECT_EQ("d/a: CHANGED\n", runOnce({"--status", "status"}).out);
    EXPECT_EQ(1u, status().round);

    scratch.write("d/c", "new");
    start({"--status", "status"});
    EXPECT_EQ("files: 2, findings: 2", roundEnded(2));
    EXPECT_EQ("d/c: NEW\n", end().out);

    scratch.write("d/a", "alpha");
    EXPECT_EQ("d/a: OK\n", runOnce({"--status", "status"}).out);
    EXPECT_EQ(3u, status().round);
}

TEST_F(WatchStatusTest, HoldsTheRoundAndTheFindings) {
    scratch.write("d/a", "beta");
    scratch.write("d/c", "new");
    runOnce({"--status", "status"});
    std::map<std::string, Finding> findings;
    WatchStatus const found = status(findings);
    EXPECT_EQ("manifest", found.manifest);
    EXPECT_EQ(1u, found.round);
    EXPECT_EQ(2u, found.files);
    EXPECT_EQ(1u, found.well);
    EXPECT_EQ(20u, found.started.size());
    EXPECT_LE(found.started, found.ended);
    EXPECT_THAT(found.nextFile, IsEmpty());
    ASSERT_EQ(2u, findings.size());
    EXPECT_TRUE((findings["d/a"] == Finding{Finding::CHANGED, BETA}));
    EXPECT_TRUE((findings["d/c"] == Finding{Finding::NEW, ""}));
}

TEST_F(WatchStatusTest, IsJsonWhateverTheNames) {
    for (auto const* name : {"d/\"quoted\"", "d/back\\slash", "d/\xff\xfe", "d/new\nline",
                             "d/\xc3\xa9", "d/\xed\xa0\x80", "d/\x7f\x01"}) {
        scratch.write(name, "x");
    }
    runOnce({"--status", "status"});
    std::map<std::string, Finding> findings;
    status(findings);
    EXPECT_EQ(7u, findings.size());
    EXPECT_EQ("\n", runOnce({"--status", "status"}).out + "\n") << "all are known again";

    Command python;
    python.arguments = {"python3", "-c",
                        "import json, os\n"
                        "for finding in json.load(open('status'))['findings']:\n"
                        "    os.stat(os.fsencode(finding['file']))\n"};
    python.directory = scratch.path();
    python.locale = "C.UTF-8";
    Outcome const outcome = run(python);
    if (outcome.exitStatus == 127) {
        GTEST_SKIP() << "there is no python3";
    }
    EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
}

TEST_F(WatchStatusTest, DamagedFileIsReplaced) {
    for (std::string const& damaged :
         {std::string("{"), std::string("{}\n"), std::string("not JSON"), std::string()}) {
        scratch.write("status", damaged);
        Outcome const outcome = runOnce({"--status", "status"});
        EXPECT_EQ("ovra-manifest: status: is no status file, and will be replaced\n", outcome.err);
        EXPECT_EQ(1u, status().round);
    }
}

TEST_F(WatchStatusTest, NothingIsTakenFromADamagedFile) {
    scratch.write("d/a", "other");
    runOnce({"--status", "status"});
    std::string const whole = scratch.read("status");
    scratch.write("status", whole.substr(0, whole.rfind('}')));
    Outcome const outcome = runOnce({"--status", "status"});
    EXPECT_EQ("d/a: CHANGED\n", outcome.out);
    EXPECT_EQ(1u, status().round);
}

TEST_F(WatchStatusTest, OneProcessAtATime) {
    start({"--status", "status"});
    roundEnded(1);
    Outcome const second = runOnce({"--status", "status"});
    EXPECT_EQ(1, second.exitStatus);
    EXPECT_EQ("ovra-manifest: status: another process watches with this status file\n", second.err);
    EXPECT_EQ(0, runOnce({"--status", "another"}).exitStatus);
    end(SIGKILL);
    EXPECT_EQ(0, runOnce({"--status", "status"}).exitStatus);
    EXPECT_EQ(2u, status().round);
}

TEST_F(WatchStatusTest, CannotBeMadeWhereThereIsNoDirectory) {
    Outcome const outcome = runOnce({"--status", "no/status"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: no/status.lock: cannot be locked (MISSING)\n", outcome.err);
}

TEST_F(WatchStatusTest, FullDiskIsComplainedOfOnceAndOutlived) {
    start({"--status", "status", "--log", "log"});
    roundEnded(1);
    rlimit const none = {20, RLIM_INFINITY};
    ASSERT_EQ(0, prlimit(process->id(), RLIMIT_FSIZE, &none, nullptr));
    scratch.write("d/a", "other");
    nextRound(2);
    nextRound(3);
    EXPECT_EQ(1u, status().round) << "the old one stays";
    rlimit const all = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, prlimit(process->id(), RLIMIT_FSIZE, &all, nullptr));
    nextRound(4);
    EXPECT_EQ(4u, status().round);
    Outcome const outcome = end();
    EXPECT_EQ("d/a: CHANGED\n", outcome.out);
    EXPECT_EQ("ovra-manifest: status: cannot be written (FULL)\n", outcome.err);
    EXPECT_THAT(scratch.read("log"), HasSubstr("lines lost"));
}

// A round that takes too long for one run goes on in the next one.
TEST_F(WatchStatusTest, RoundGoesOnWhereItWasEnded) {
    scratch.write("d/a", "other");
    scratch.write("d/b", std::string(100000, 'b'));
    start({"--status", "status", "--rate", "10"});
    ASSERT_TRUE(process->waitForOutput("d/a: CHANGED\n"));
    EXPECT_EQ(0, end().exitStatus);
    EXPECT_EQ("d/b", status().nextFile);
    EXPECT_EQ(0u, status().round);

    scratch.write("d/a", "yet another");
    start({"--status", "status"});
    EXPECT_EQ("files: 2, findings: 2", roundEnded(1));
    EXPECT_THAT(status().nextFile, IsEmpty());
    nextRound(2);
    EXPECT_EQ("d/b: CHANGED\nd/a: CHANGED\n", end().out);
}

// Saved while the round is held up, and no later: it then ends without a word.
TEST_F(WatchStatusTest, FindingIsSavedBeforeTheRoundEnds) {
    scratch.write("d/a", "other");
    HungFile const hung(scratch.path("d/b"));
    start({"--status", "status"});
    hung.waitForReader();
    yieldUntil([this] { return scratch.exists("status"); });
    EXPECT_THAT(status().nextFile, StartsWith("d/")) << "\"d/a\" may just be ending";
    EXPECT_EQ("d/a: CHANGED\n", end(SIGKILL).out);
    hung.release();
    EXPECT_EQ("", runOnce({"--status", "status"}).out);
}

// Each change is reported, and none again once the status file has it, whenever the process is
// killed.
TEST_F(WatchStatusTest, NothingIsMissedWhenItIsKilledAtAnyMoment) {
    RandomSource random(runSeed());
    constexpr int FILES = 40;
    std::string manifest;
    for (int number = 0; number < FILES; ++number) {
        std::string const name = "d/file" + std::to_string(number);
        scratch.write(name, "alpha");
        manifest += ALPHA + "  " + name + '\n';
    }
    scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n" + manifest);
    Command often = command({"--status", "status"});
    often.arguments[4] = "0.001";

    std::string reported;
    for (int number = 0; number < FILES; ++number) {
        restartDeadline();
        std::map<std::string, Finding> known;
        if (scratch.exists("status")) {
            status(known);
        }
        scratch.write("d/file" + std::to_string(number), "changed");
        start(often);
        if (number % 2 == 0) {
            ASSERT_TRUE(process->waitForOutput("CHANGED"));
        }
        auto const spins = random.below(2000000);
        for (std::uint64_t volatile spin = 0; spin < spins; spin = spin + 1) {
        }
        Outcome const outcome = end(SIGKILL);
        socket.take();
        for (auto const& [path, finding] : known) {
            EXPECT_THAT(outcome.out, Not(HasSubstr(path + ": CHANGED\n")));
        }
        reported += outcome.out;
    }
    Outcome const last = runOnce({"--status", "status"});
    reported += last.out + runOnce({"--status", "status"}).out;
    for (int number = 0; number < FILES; ++number) {
        EXPECT_THAT(reported, HasSubstr("d/file" + std::to_string(number) + ": CHANGED\n"));
    }
    std::map<std::string, Finding> findings;
    status(findings);
    EXPECT_EQ(static_cast<std::size_t>(FILES), findings.size());
}

}  // namespace
