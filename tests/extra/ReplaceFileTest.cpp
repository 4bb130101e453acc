#include <ovra/extra/ReplaceFile.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/extra/Mounted.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Contained.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class ReplaceFileTest : public TemporaryDirectoryTest {
protected:
    // Also: `errno` is kept.
    static Outcome replace(std::string const& path, std::string const& contents) {
        errno = EDOM;
        Outcome const outcome = replaceFile(path, contents);
        EXPECT_EQ(errno, EDOM);
        return outcome;
    }
    static Outcome sync(std::string const& path) {
        errno = EDOM;
        Outcome const outcome = syncFile(path);
        EXPECT_EQ(errno, EDOM);
        return outcome;
    }
};

// Mounts for one test; where that is not allowed, the test is skipped.
#define OVRA_NEEDS_OWN_ROOT()                                                \
    if (!ovra::test::hasOwnRoot()) {                                         \
        GTEST_SKIP() << "an ordinary user may not mount or give away files"; \
    }

TEST_F(ReplaceFileTest, ReplacesAFile) {
    writeFile(at("f"), "old contents");
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), "new");
    EXPECT_THAT(namesIn(root), ElementsAre("f"));
}

TEST_F(ReplaceFileTest, MakesAFile) {
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), "new");
    EXPECT_THAT(namesIn(root), ElementsAre("f"));
}

TEST_F(ReplaceFileTest, EmptyContentsAreContents) {
    writeFile(at("f"), "old");
    EXPECT_EQ(replace(at("f"), ""), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), "");
    EXPECT_EQ(replace(at("g"), ""), Outcome::DONE);
    EXPECT_EQ(readFile(at("g")), "");
}

TEST_F(ReplaceFileTest, WorksWhereStandardInputIsClosed) {
    int const input = dup(STDIN_FILENO);
    ASSERT_EQ(close(STDIN_FILENO), 0);  // The next descriptor is 0.
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "left open";
    EXPECT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    close(input);
    EXPECT_EQ(readFile(at("f")), "new");
}

TEST_F(ReplaceFileTest, WritesEveryByte) {
    std::string const bytes = patternlessBytes(3000001);
    EXPECT_EQ(replace(at("f"), bytes), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), bytes);
}

TEST_F(ReplaceFileTest, TakesRelativePaths) {
    makeDirectory(at("d"));
    WorkingDirectory const here(at("d"));
    EXPECT_EQ(replace("f", "one"), Outcome::DONE);
    EXPECT_EQ(replace("../g", "two"), Outcome::DONE);
    EXPECT_EQ(replace("./h", "three"), Outcome::DONE);
    EXPECT_EQ(readFile(at("d/f")), "one");
    EXPECT_EQ(readFile(at("g")), "two");
    EXPECT_EQ(readFile(at("d/h")), "three");
}

TEST_F(ReplaceFileTest, WhatIsNoFileOrHasNoPlaceIsRefusedBeforeAnythingIsMade) {
    makeDirectory(at("d"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    writeFile(at("f"), "old");
    makeLink("d", at("link-to-d"));
    makeLink("pipe", at("link-to-pipe"));
    makeLink("circle", at("circle"));
    makeLink("missing/f", at("leads-nowhere"));
    makeLink("f/", at("with-separator"));
    std::vector<std::string> const before = namesIn(root);

    struct Row {
        std::string path;
        Outcome outcome;
    };
    std::vector<Row> const table = {{at("d"), Outcome::WRONG_KIND},
                                    {at("pipe"), Outcome::WRONG_KIND},
                                    {at("socket"), Outcome::WRONG_KIND},
                                    {at("link-to-d"), Outcome::WRONG_KIND},
                                    {at("link-to-pipe"), Outcome::WRONG_KIND},
                                    {at("."), Outcome::WRONG_KIND},
                                    {at("d/.."), Outcome::WRONG_KIND},
                                    {at("f/"), Outcome::WRONG_KIND},
                                    {at("d/"), Outcome::WRONG_KIND},
                                    {at("new/"), Outcome::WRONG_KIND},
                                    {at("with-separator"), Outcome::WRONG_KIND},
                                    {"/", Outcome::WRONG_KIND},
                                    {at("missing/f"), Outcome::MISSING},
                                    {at("f/f"), Outcome::MISSING},
                                    {at("leads-nowhere"), Outcome::MISSING},
                                    {"", Outcome::MISSING},
                                    {at("circle"), Outcome::TOO_MANY_LINKS},
                                    {at(std::string(NAME_MAX + 1, 'x')), Outcome::NAME_TOO_LONG},
                                    {at("f") + '\0' + "g", Outcome::REFUSED}};
    for (Row const& row : table) {
        EXPECT_EQ(outcomeName(replace(row.path, "new")), std::string(outcomeName(row.outcome)))
            << row.path;
    }
    EXPECT_EQ(namesIn(root), before);
    EXPECT_THAT(namesIn(at("d")), ElementsAre());
    EXPECT_EQ(readFile(at("f")), "old");
}

TEST_F(ReplaceFileTest, NeverOpensADevice) {
    OVRA_NEEDS_OWN_ROOT();
    // The null device: anything else would be a device of this machine.
    ASSERT_EQ(mknod(at("device").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    EXPECT_EQ(replace(at("device"), "new"), Outcome::WRONG_KIND);
    EXPECT_EQ(sync(at("device")), Outcome::WRONG_KIND);
    EXPECT_THAT(namesIn(root), ElementsAre("device"));
}

TEST_F(ReplaceFileTest, ALinkStaysAndItsTargetIsReplaced) {
    makeDirectory(at("d"));
    makeDirectory(at("e"));
    writeFile(at("e/f"), "old");
    makeLink("../e/f", at("d/inner"));
    makeLink(at("d") + "/inner", at("outer"));
    EXPECT_EQ(replace(at("outer"), "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("e/f")), "new");
    EXPECT_EQ(linkContents(at("outer")), at("d") + "/inner");
    EXPECT_EQ(linkContents(at("d/inner")), "../e/f");
    EXPECT_EQ(modeOf(at("e/f")) & S_IFMT, S_IFREG);
    EXPECT_THAT(namesIn(at("e")), ElementsAre("f"));
    EXPECT_THAT(namesIn(at("d")), ElementsAre("inner"));
}

TEST_F(ReplaceFileTest, ADanglingLinkStaysAndItsTargetIsMade) {
    makeDirectory(at("d"));
    makeLink("d/f", at("link"));
    EXPECT_EQ(replace(at("link"), "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("d/f")), "new");
    EXPECT_EQ(linkContents(at("link")), "d/f");
    EXPECT_EQ(permissionsOf(at("d/f")), 0644u);
}

// Its text is no path: "pipe:[4711]".
TEST_F(ReplaceFileTest, ALinkOfTheSystemToAnOpenPipeIsNoPlaceForAFile) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(replace("/proc/self/fd/" + std::to_string(ends[1]), "new"), Outcome::WRONG_KIND);
    close(ends[0]);
    close(ends[1]);
}

// Its text names what is not there any more, or something else that has taken the name.
TEST_F(ReplaceFileTest, ALinkOfTheSystemToAnOpenFileIsReplacedOnlyWhereTheFileLies) {
    std::string const path = "/proc/self/fd/";
    writeFile(at("f"), "old");
    int const file = open(at("f").c_str(), O_RDONLY | O_CLOEXEC);
    std::string const link = path + std::to_string(file);
    EXPECT_EQ(replace(link, "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), "new");
    EXPECT_EQ(replace(link, "newer"), Outcome::WRONG_KIND) << "the open file has no name now";
    EXPECT_EQ(readFile(at("f")), "new");
    EXPECT_THAT(namesIn(root), ElementsAre("f"));
    writeFile(at("f (deleted)"), "other");  // What the system says of it.
    EXPECT_EQ(replace(link, "newest"), Outcome::WRONG_KIND);
    EXPECT_EQ(readFile(at("f (deleted)")), "other");
    close(file);
}

TEST_F(ReplaceFileTest, AHardLinkKeepsTheOldContents) {
    writeFile(at("f"), "old");
    makeHardLink(at("f"), at("other"));
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(readFile(at("f")), "new");
    EXPECT_EQ(readFile(at("other")), "old");
}

TEST_F(ReplaceFileTest, ANameOfAnyLengthHasRoomBesideIt) {
    for (std::size_t const length : {1u, 2u, 246u, 247u, 248u, 249u, 254u, 255u}) {
        std::string const name(length, 'x');
        EXPECT_EQ(replace(at(name), "one"), Outcome::DONE) << length;
        EXPECT_EQ(replace(at(name), "two"), Outcome::DONE) << length;
        EXPECT_EQ(readFile(at(name)), "two") << length;
    }
    // Two bytes each, so that a cut could fall between them.
    std::string accented;
    while (accented.size() < 254) {
        accented += "\xc3\xa9";
    }
    EXPECT_EQ(replace(at(accented), "three"), Outcome::DONE);
    EXPECT_EQ(namesIn(root).size(), 9u);
}

TEST_F(ReplaceFileTest, KeepsTheMode) {
    for (mode_t const mode : {0600u, 0444u, 0777u, 0640u, 04755u, 02755u, 01777u, 0000u}) {
        writeFile(at("f"), "old");
        setPermissions(at("f"), mode);
        EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
        EXPECT_EQ(permissionsOf(at("f")), mode);
        ASSERT_EQ(unlink(at("f").c_str()), 0);
    }
}

TEST_F(ReplaceFileTest, ANewFileHasWhatTheUmaskLeaves) {
    for (mode_t const mask : {0000u, 0022u, 0027u, 0077u, 0777u}) {
        umask(mask);
        EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
        umask(022);
        EXPECT_EQ(permissionsOf(at("f")), 0666u & ~mask) << mask;
        EXPECT_THAT(namesIn(root), ElementsAre("f"));
        ASSERT_EQ(unlink(at("f").c_str()), 0);
    }
}

TEST_F(ReplaceFileTest, AFileOfMode0600StaysPrivateUnderAnyUmask) {
    writeFile(at("f"), "old");
    setPermissions(at("f"), 0600);
    umask(0);
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(permissionsOf(at("f")), 0600u);
}

TEST_F(ReplaceFileTest, TheSuperuserKeepsTheOwnerAndTheSetIdBits) {
    OVRA_NEEDS_OWN_ROOT();
    writeFile(at("f"), "old");
    ASSERT_EQ(chown(at("f").c_str(), 1234, 5678), 0);
    setPermissions(at("f"), 06755);
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(statusOf(at("f")).st_uid, 1234u);
    EXPECT_EQ(statusOf(at("f")).st_gid, 5678u);
    EXPECT_EQ(permissionsOf(at("f")), 06755u);
}

TEST_F(ReplaceFileTest, WhoMayNotGiveAFileAwayOwnsItAndTheSetIdBitsGo) {
    OVRA_NEEDS_OWN_ROOT();
    writeFile(at("f"), "old");
    ASSERT_EQ(chown(at("f").c_str(), 1234, 5678), 0);
    setPermissions(at("f"), 06754);
    uid_t owner;
    {
        OrdinaryUser const user(root);
        owner = geteuid();
        EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    }
    EXPECT_EQ(statusOf(at("f")).st_uid, owner);
    EXPECT_EQ(permissionsOf(at("f")), 0754u);
}

TEST_F(ReplaceFileTest, TheGroupIsKeptWhereItIsOneOfTheProcesses) {
    OVRA_NEEDS_OWN_ROOT();
    writeFile(at("f"), "old");
    {
        OrdinaryUser const user(root);
        gid_t const group = getegid();
        ASSERT_EQ(seteuid(0), 0);
        ASSERT_EQ(chown(at("f").c_str(), 1234, group), 0);
        setPermissions(at("f"), 06755);
        ASSERT_EQ(chown(root.c_str(), static_cast<uid_t>(-1), 4321), 0);
        setPermissions(root, 02777);  // New files get the group of the directory.
        ASSERT_EQ(seteuid(65534), 0);
        EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
        EXPECT_EQ(statusOf(at("f")).st_gid, group);
        EXPECT_EQ(permissionsOf(at("f")), 0755u);  // The owner is another one.
        EXPECT_EQ(replace(at("g"), "new"), Outcome::DONE);
        EXPECT_EQ(statusOf(at("g")).st_gid, 4321u);
    }
}

TEST_F(ReplaceFileTest, AFullFileSystemKeepsTheOldContents) {
    OVRA_NEEDS_OWN_ROOT();
    makeDirectory(at("small"));
    Mounted const small("small", at("small"), "tmpfs", 0, "size=64k");
    writeFile(at("small/f"), "old");
    EXPECT_EQ(replace(at("small/f"), std::string(100000, 'x')), Outcome::FULL);
    EXPECT_EQ(replace(at("small/g"), std::string(100000, 'x')), Outcome::FULL);
    EXPECT_EQ(readFile(at("small/f")), "old");
    EXPECT_THAT(namesIn(at("small")), ElementsAre("f"));
    EXPECT_EQ(replace(at("small/f"), std::string(30000, 'x')), Outcome::DONE);
}

TEST_F(ReplaceFileTest, AFileSystemThatIsReadOnlyKeepsTheOldContents) {
    OVRA_NEEDS_OWN_ROOT();
    makeDirectory(at("d"));
    makeDirectory(at("view"));
    writeFile(at("d/f"), "old");
    Mounted const view(at("d"), at("view"), nullptr, MS_BIND);
    ASSERT_EQ(
        mount(nullptr, at("view").c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(replace(at("view/f"), "new"), Outcome::READ_ONLY);
    EXPECT_EQ(replace(at("view/g"), "new"), Outcome::READ_ONLY);
    EXPECT_EQ(readFile(at("d/f")), "old");
    EXPECT_EQ(sync(at("view/f")), Outcome::DONE);
}

TEST_F(ReplaceFileTest, AFileThatIsMountedOnIsBusy) {
    OVRA_NEEDS_OWN_ROOT();
    writeFile(at("f"), "old");
    writeFile(at("g"), "other");
    Mounted const bound(at("g"), at("f"), nullptr, MS_BIND);
    EXPECT_EQ(replace(at("f"), "new"), Outcome::BUSY);
    EXPECT_EQ(readFile(at("f")), "other");
    EXPECT_THAT(namesIn(root), UnorderedElementsAre("f", "g"));
}

TEST_F(ReplaceFileTest, ADirectoryThatMayNotBeReadCannotBeSynced) {
    OrdinaryUser const user(root);
    makeDirectory(at("d"));
    writeFile(at("d/f"), "old");
    setPermissions(at("d"), 0300);
    EXPECT_EQ(replace(at("d/f"), "new"), Outcome::DONE_NOT_SYNCED);
    EXPECT_EQ(readFile(at("d/f")), "new");
    setPermissions(at("d"), 0500);
    EXPECT_EQ(replace(at("d/f"), "newer"), Outcome::DENIED);
    EXPECT_EQ(readFile(at("d/f")), "new");
    setPermissions(at("d"), 0700);
    EXPECT_THAT(namesIn(at("d")), ElementsAre("f"));
}

TEST_F(ReplaceFileTest, AFileThatMayNotBeReadOrWrittenIsReplacedAllTheSame) {
    OrdinaryUser const user(root);
    writeFile(at("f"), "old");
    setPermissions(at("f"), 0000);
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
    EXPECT_EQ(permissionsOf(at("f")), 0u);
    setPermissions(at("f"), 0400);
    EXPECT_EQ(readFile(at("f")), "new");
}

TEST_F(ReplaceFileTest, ALimitOnTheSizeOfFilesCountsAsFull) {
    writeFile(at("f"), "old");
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    struct rlimit limit = before;
    limit.rlim_cur = 1000;
    auto const handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    Outcome const outcome = replace(at("f"), std::string(5000, 'x'));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, handler);
    EXPECT_EQ(outcome, Outcome::FULL);
    EXPECT_EQ(readFile(at("f")), "old");
    EXPECT_THAT(namesIn(root), ElementsAre("f"));
}

TEST_F(ReplaceFileTest, WithoutDescriptorsNothingHappens) {
    writeFile(at("f"), "old");
    for (unsigned int more : {0u, 1u}) {
        Outcome outcome;
        {
            DescriptorLimit const limit(more);
            outcome = replace(at("f"), "new");
        }
        EXPECT_EQ(outcome, Outcome::NO_DESCRIPTORS);
        EXPECT_EQ(readFile(at("f")), "old");
        EXPECT_THAT(namesIn(root), ElementsAre("f"));
    }
    DescriptorLimit const limit(2);
    EXPECT_EQ(replace(at("f"), "new"), Outcome::DONE);
}

TEST_F(ReplaceFileTest, ReadersSeeTheOldContentsOrTheNewWhole) {
    std::string const zeros(20000, '0');
    std::string const ones(30000, '1');
    writeFile(at("f"), zeros);
    std::thread writers[2];
    for (std::thread& writer : writers) {
        writer = std::thread([&] {
            for (int round = 0; round < ovra::test::scaled(200); ++round) {
                EXPECT_EQ(replaceFile(at("f"), round % 2 == 0 ? ones : zeros), Outcome::DONE);
            }
        });
    }
    for (int round = 0; round < ovra::test::scaled(1000); ++round) {
        auto const seen = readFile(at("f"));
        ASSERT_TRUE(seen == zeros || seen == ones) << round;
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_THAT(namesIn(root), ElementsAre("f"));
}

TEST_F(ReplaceFileTest, SyncTakesFilesAndDirectoriesAndNothingElse) {
    writeFile(at("f"));
    makeDirectory(at("d"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("f", at("link"));
    makeLink("pipe", at("link-to-pipe"));
    EXPECT_EQ(sync(at("f")), Outcome::DONE);
    EXPECT_EQ(sync(at("d")), Outcome::DONE);
    EXPECT_EQ(sync(at("d/")), Outcome::DONE);
    EXPECT_EQ(sync(at("link")), Outcome::DONE);
    EXPECT_EQ(sync(at("pipe")), Outcome::WRONG_KIND);
    EXPECT_EQ(sync(at("link-to-pipe")), Outcome::WRONG_KIND);
    EXPECT_EQ(sync(at("socket")), Outcome::WRONG_KIND);
    EXPECT_EQ(sync(at("missing")), Outcome::MISSING);
    EXPECT_EQ(sync(""), Outcome::MISSING);
    EXPECT_EQ(sync(at("f") + '\0' + "g"), Outcome::REFUSED);
}

TEST_F(ReplaceFileTest, SyncTakesAFileThatMayOnlyBeWritten) {
    OrdinaryUser const user(root);
    writeFile(at("f"));
    setPermissions(at("f"), 0200);
    EXPECT_EQ(sync(at("f")), Outcome::DONE);
    setPermissions(at("f"), 0000);
    EXPECT_EQ(sync(at("f")), Outcome::DENIED);
}

}  // namespace

}  // namespace ovra::extra
