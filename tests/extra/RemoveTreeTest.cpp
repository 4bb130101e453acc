#include <ovra/extra/RemoveTree.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
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

class RemoveTreeTest : public TemporaryDirectoryTest {
protected:
    RemoveTreeTest() {
        makeDirectory(at("bystander"));
        writeFile(at("bystander/f"), "kept");
    }

    void TearDown() override {
        EXPECT_EQ(readFile(at("bystander/f")), "kept");
        EXPECT_THAT(namesIn(at("bystander")), ElementsAre("f"));
        TemporaryDirectoryTest::TearDown();
    }

    static Outcome remove(std::string const& path) {
        errno = EDOM;
        Outcome const outcome = removeTree(path);
        EXPECT_EQ(errno, EDOM);
        return outcome;
    }

    void makeTree(std::string const& name) {
        makeDirectory(at(name));
        makeDirectory(at(name + "/empty"));
        makeDirectory(at(name + "/d"));
        writeFile(at(name + "/d/f"));
        makeDirectory(at(name + "/d/deeper"));
        makeLink("../../..", at(name + "/d/deeper/up"));
        writeFile(at(name + "/f"));
    }
};

TEST_F(RemoveTreeTest, RemovesEveryKindOfEntry) {
    makeTree("t");
    makePipe(at("t/pipe"));
    makeSocket(at("t/d/socket"));
    makeLink("nowhere", at("t/dangling"));
    makeLink("circle", at("t/circle"));
    makeHardLink(at("bystander/f"), at("t/hard"));
    writeFile(at("t/ with spaces\n and \xff bytes"));
    makeDirectory(at("t/...") + "");
    makeDirectory(at("t/..hidden"));
    writeFile(at("t/..hidden/" + std::string(255, 'x')));
    if (ovra::test::hasOwnRoot()) {
        ASSERT_EQ(mknod(at("t/device").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    }
    EXPECT_EQ(remove(at("t")), Outcome::DONE);
    EXPECT_THAT(namesIn(root), ElementsAre("bystander"));
}

TEST_F(RemoveTreeTest, SparesWhatLinksLeadTo) {
    makeTree("t");
    makeLink(at("bystander"), at("t/link-to-directory"));
    makeLink("../bystander", at("t/d/relative"));
    makeLink(at("bystander/f"), at("t/link-to-file"));
    EXPECT_EQ(remove(at("t")), Outcome::DONE);
    EXPECT_THAT(namesIn(root), ElementsAre("bystander"));
}

TEST_F(RemoveTreeTest, TheRootMayBeAnythingAndALinkIsRemovedAsALink) {
    for (char const* const separators : {"", "/", "///"}) {
        makeTree("t");
        writeFile(at("f"));
        makePipe(at("pipe"));
        makeLink("bystander", at("link"));
        makeLink("nowhere", at("dangling"));
        for (char const* const name : {"t", "f", "pipe", "link", "dangling"}) {
            EXPECT_EQ(remove(at(name) + separators), Outcome::DONE) << name << separators;
        }
        EXPECT_THAT(namesIn(root), ElementsAre("bystander"));
    }
}

TEST_F(RemoveTreeTest, FollowsLinksOnTheWayToTheRoot) {
    makeTree("t");
    makeLink("t/d", at("way"));
    EXPECT_EQ(remove(at("way/deeper")), Outcome::DONE);
    EXPECT_THAT(namesIn(at("t/d")), ElementsAre("f"));
    EXPECT_EQ(linkContents(at("way")), "t/d");
}

TEST_F(RemoveTreeTest, SaysWhatItDoesNotTouch) {
    makeTree("t");
    writeFile(at("f"));
    WorkingDirectory const here(at("t"));
    struct Row {
        std::string path;
        Outcome outcome;
    };
    std::vector<Row> const table = {
        {"", Outcome::MISSING},
        {at("missing"), Outcome::MISSING},
        {at("missing/"), Outcome::MISSING},
        {at("missing/t"), Outcome::MISSING},
        {at("f/t"), Outcome::MISSING},
        {".", Outcome::REFUSED},
        {"..", Outcome::REFUSED},
        {"./", Outcome::REFUSED},
        {"..//", Outcome::REFUSED},
        {"d/.", Outcome::REFUSED},
        {"d/..", Outcome::REFUSED},
        {at("t/.."), Outcome::REFUSED},
        {at("t/./"), Outcome::REFUSED},
        {"/", Outcome::REFUSED},
        {"///", Outcome::REFUSED},
        {"/.", Outcome::REFUSED},
        {"/..", Outcome::REFUSED},
        {at("t") + '\0' + "/f", Outcome::REFUSED},
        {at(std::string(256, 'x')), Outcome::NAME_TOO_LONG},
    };
    for (Row const& row : table) {
        EXPECT_EQ(outcomeName(remove(row.path)), std::string(outcomeName(row.outcome))) << row.path;
    }
    EXPECT_THAT(namesIn(at("t")), UnorderedElementsAre("empty", "d", "f"));
    EXPECT_THAT(namesIn(at("t/d")), UnorderedElementsAre("deeper", "f"));
    EXPECT_EQ(remove("d"), Outcome::DONE);
    EXPECT_THAT(namesIn(at("t")), UnorderedElementsAre("empty", "f"));
}

// Names below an open directory: a path to the bottom would be too long for the system.
void makeChain(std::string const& top, int depth) {
    makeDirectory(top);
    int level = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 1; i < depth; ++i) {
        ASSERT_EQ(mkdirat(level, "a directory", 0777), 0);
        close(openat(level, "before", O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        int const next = openat(level, "a directory", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(mkdirat(level, "another", 0777), 0);
        close(level);
        level = next;
    }
    close(level);
}

TEST_F(RemoveTreeTest, RemovesATreeFiveThousandLevelsDeepWithSixteenDescriptors) {
    makeChain(at("t"), 5000);
    DescriptorLimit const limit(16);
    EXPECT_EQ(remove(at("t")), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("t")));
}

TEST_F(RemoveTreeTest, ADeepTreeNeedsNoStack) {
    makeChain(at("t"), 2000);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
    pthread_t thread;
    std::string const path = at("t");
    auto const body = [](void* argument) -> void* {
        EXPECT_EQ(removeTree(*static_cast<std::string const*>(argument)), Outcome::DONE);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<std::string*>(&path)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_FALSE(entryExists(at("t")));
}

TEST_F(RemoveTreeTest, RemovesTwoHundredThousandEntriesWithSixteenDescriptors) {
    makeDirectory(at("t"));
    int const entries = ovra::test::scaled(200000);
    int const top = open(at("t").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < entries; ++i) {
        std::string const name = std::to_string(i);
        if (i % 10 == 0) {
            ASSERT_EQ(mkdirat(top, name.c_str(), 0777), 0);
        } else {
            ASSERT_EQ(symlinkat("nowhere", top, name.c_str()), 0);
        }
    }
    close(top);
    DescriptorLimit const limit(16);
    EXPECT_EQ(remove(at("t")), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("t")));
}

TEST_F(RemoveTreeTest, GoesOnAfterAFailureAndReturnsTheFirst) {
    OrdinaryUser const user(root);
    makeTree("t");
    makeDirectory(at("t/kept"));
    writeFile(at("t/kept/f"));
    makeDirectory(at("t/kept/d"));
    writeFile(at("t/kept/d/f"));
    setPermissions(at("t/kept"), 0500);
    EXPECT_EQ(remove(at("t")), Outcome::DENIED);
    EXPECT_THAT(namesIn(at("t")), ElementsAre("kept"));
    // What may be removed is, also below what stays.
    EXPECT_THAT(namesIn(at("t/kept")), UnorderedElementsAre("d", "f"));
    EXPECT_THAT(namesIn(at("t/kept/d")), ElementsAre());
    setPermissions(at("t/kept"), 0700);
    EXPECT_EQ(remove(at("t")), Outcome::DONE);
}

TEST_F(RemoveTreeTest, OneThatMayNotBeReadStaysUnlessItIsEmpty) {
    OrdinaryUser const user(root);
    makeTree("t");
    setPermissions(at("t/empty"), 0000);
    setPermissions(at("t/d"), 0300);
    EXPECT_EQ(remove(at("t")), Outcome::DENIED);
    EXPECT_THAT(namesIn(at("t")), ElementsAre("d"));
    setPermissions(at("t/d"), 0700);
    EXPECT_THAT(namesIn(at("t/d")), UnorderedElementsAre("deeper", "f"));
}

// A tree in which something stays, deeper down than directories are kept open.
TEST_F(RemoveTreeTest, WhatStaysFarBelowIsVisitedOnce) {
    OrdinaryUser const user(root);
    std::string path = at("t");
    for (int level = 0; level < 30; ++level) {
        makeDirectory(path);
        makeDirectory(path + "/side");
        writeFile(path + "/side/f");
        path += "/d";
    }
    makeDirectory(path);
    writeFile(path + "/f");
    setPermissions(path, 0500);
    EXPECT_EQ(remove(at("t")), Outcome::DENIED);
    EXPECT_EQ(readFile(path + "/f"), "contents");
    std::string above = at("t");
    for (int level = 0; level < 30; ++level) {
        EXPECT_THAT(namesIn(above), ElementsAre("d"));
        above += "/d";
    }
    setPermissions(path, 0700);
}

TEST_F(RemoveTreeTest, MountPointsAreNotCrossed) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeTree("t");
    makeTree("outside");
    makeDirectory(at("t/other"));
    makeDirectory(at("t/d/same"));
    writeFile(at("t/file"));
    Mounted const otherDevice("other", at("t/other"), "tmpfs", 0);
    writeFile(at("t/other/f"));
    Mounted const sameDevice(at("outside"), at("t/d/same"), nullptr, MS_BIND);
    Mounted const onFile(at("bystander/f"), at("t/file"), nullptr, MS_BIND);
    EXPECT_EQ(remove(at("t")), Outcome::BUSY);
    EXPECT_THAT(namesIn(at("t")), UnorderedElementsAre("other", "d", "file"));
    EXPECT_THAT(namesIn(at("t/d")), ElementsAre("same"));
    EXPECT_THAT(namesIn(at("t/other")), ElementsAre("f"));
    EXPECT_THAT(namesIn(at("outside")), UnorderedElementsAre("empty", "d", "f"));
}

// One at a time: of several, each could hide that another was passed over in silence.
TEST_F(RemoveTreeTest, EveryKindOfMountPointAloneIsBusyAndStays) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeTree("outside");
    struct Row {
        char const* mounted;
        std::string from;
        char const* type;
        unsigned long flags;
        void (*makePoint)(std::string const&);
    };
    auto const makeDirectoryThere = [](std::string const& path) { makeDirectory(path); };
    auto const makeFileThere = [](std::string const& path) { writeFile(path); };
    for (Row const& row : {Row{"another device", "other", "tmpfs", 0, makeDirectoryThere},
                           Row{"a directory", at("outside"), nullptr, MS_BIND, makeDirectoryThere},
                           Row{"a file", at("outside/f"), nullptr, MS_BIND, makeFileThere}}) {
        makeTree("t");
        row.makePoint(at("t/d/point"));
        {
            Mounted const mounted(row.from, at("t/d/point"), row.type, row.flags);
            EXPECT_EQ(outcomeName(remove(at("t"))), std::string("BUSY")) << row.mounted;
            EXPECT_THAT(namesIn(at("t")), ElementsAre("d")) << row.mounted;
            EXPECT_THAT(namesIn(at("t/d")), ElementsAre("point")) << row.mounted;
        }
        EXPECT_EQ(remove(at("t")), Outcome::DONE) << row.mounted;
        EXPECT_THAT(namesIn(at("outside")), UnorderedElementsAre("empty", "d", "f")) << row.mounted;
    }
}

TEST_F(RemoveTreeTest, MountPointsAreNotCrossedWhereTheDirectoryMayNotBeChanged) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeTree("t");
    makeTree("outside");
    makeDirectory(at("t/d/same"));
    Mounted const sameDevice(at("outside"), at("t/d/same"), nullptr, MS_BIND);
    for (char const* const name : {"t", "t/d", "t/d/same", "outside"}) {
        setPermissions(at(name), 0777);
    }
    setPermissions(at("t/d"), 0555);
    {
        OrdinaryUser const user(root);
        // To remove the directory is denied before anybody looks at what is mounted on it.
        ASSERT_EQ(rmdir(at("t/d/same").c_str()), -1);
        if (errno != EACCES) {
            GTEST_SKIP() << "a user whom permissions do not concern";
        }
        EXPECT_NE(remove(at("t")), Outcome::DONE);
    }
    EXPECT_THAT(namesIn(at("outside")), UnorderedElementsAre("empty", "d", "f"));
}

TEST_F(RemoveTreeTest, ARootThatIsAMountPointIsEmptiedAndStays) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeDirectory(at("t"));
    Mounted const here("here", at("t"), "tmpfs", 0);
    makeDirectory(at("t/d"));
    writeFile(at("t/d/f"));
    EXPECT_EQ(remove(at("t")), Outcome::BUSY);
    EXPECT_THAT(namesIn(at("t")), ElementsAre());
}

TEST_F(RemoveTreeTest, AFileSystemThatIsReadOnlyKeepsAll) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeDirectory(at("view"));
    makeTree("t");
    Mounted const view(at("t"), at("view"), nullptr, MS_BIND);
    ASSERT_EQ(
        mount(nullptr, at("view").c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(remove(at("view/d")), Outcome::READ_ONLY);
    EXPECT_THAT(namesIn(at("t/d")), UnorderedElementsAre("deeper", "f"));
}

TEST_F(RemoveTreeTest, TheDirectoryAroundTheRootNeedNotBeReadable) {
    {
        OrdinaryUser const user(root);
        makeDirectory(at("around"));
        makeTree("around/t");
        setPermissions(at("around"), 0300);
        EXPECT_EQ(remove(at("around/t")), Outcome::DONE);
        EXPECT_EQ(remove(at("around/t")), Outcome::MISSING);
        setPermissions(at("around"), 0700);
    }
    EXPECT_TRUE(namesIn(at("around")).empty());
}

TEST_F(RemoveTreeTest, TwoThatRemoveOneTreeHelpEachOther) {
    for (int round = 0; round < ovra::test::scaled(50); ++round) {
        makeChain(at("t"), 60);
        Outcome outcomes[2] = {};
        std::thread other([&] { outcomes[1] = removeTree(at("t")); });
        outcomes[0] = removeTree(at("t"));
        other.join();
        ASSERT_FALSE(entryExists(at("t")));
        for (Outcome const outcome : outcomes) {
            EXPECT_TRUE(outcome == Outcome::DONE || outcome == Outcome::MISSING)
                << outcomeName(outcome);
        }
    }
}

}  // namespace

}  // namespace ovra::extra
