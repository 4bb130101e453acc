#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>

#include <tests/fs/TemporaryDirectory.h>
#include <tests/fs/TestPeers.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using test::entryExists;
using test::linkContents;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::makeSocket;
using test::modeOf;
using test::namesIn;
using test::OrdinaryUser;
using test::readFile;
using test::setPermissions;
using test::WorkingDirectory;
using test::writeFile;

class RemoveDirectoryRecursiveTest : public test::TemporaryDirectoryTest {
protected:
    bool removeRecursively(std::string const& path) const {
        return FileHandle(path).RemoveDirectoryRecursive();
    }
};

TEST_F(RemoveDirectoryRecursiveTest, RemovesAnEmptyDirectory) {
    makeDirectory(at("d"));
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_FALSE(entryExists(at("d")));
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesATree) {
    makeDirectory(at("d"));
    makeDirectory(at("d/empty"));
    makeDirectory(at("d/sub"));
    makeDirectory(at("d/sub/.hidden"));
    writeFile(at("d/sub/.hidden/..file"));
    writeFile(at("d/sub/file"));
    writeFile(at("d/file"));
    setPermissions(at("d/file"), 0);
    writeFile(at("beside"), "kept");
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(root), ElementsAre("beside"));
    EXPECT_EQ(readFile(at("beside")), "kept");
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesARelativeTree) {
    makeDirectory(at("d"));
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/file"));
    WorkingDirectory const here(root);
    EXPECT_TRUE(removeRecursively("d"));
    EXPECT_THAT(namesIn(root), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, TouchesNothingThatIsNoDirectory) {
    writeFile(at("file"));
    makePipe(at("pipe"));
    makeLink("file", at("link"));
    makeLink("missing", at("dangling"));
    for (std::string const name : {"file", "pipe", "link", "dangling", "missing"}) {
        EXPECT_FALSE(removeRecursively(at(name))) << name;
    }
    EXPECT_FALSE(removeRecursively(""));
    EXPECT_THAT(namesIn(root), UnorderedElementsAre("file", "pipe", "link", "dangling"));
}

TEST_F(RemoveDirectoryRecursiveTest, KeepsWhatIsNeitherFileNorDirectory) {
    makeDirectory(at("d"));
    makeDirectory(at("d/sub"));
    makePipe(at("d/sub/pipe"));
    writeFile(at("d/sub/file"));
    makeDirectory(at("d/other"));
    makeSocket(at("d/other/socket"));
    makeDirectory(at("d/third"));
    makeLink("missing", at("d/third/dangling"));
    makeDirectory(at("d/fourth"));
    makeLink("../sub/pipe", at("d/fourth/link-to-pipe"));
    makeDirectory(at("d/fifth"));
    makeLink("/dev/null", at("d/fifth/link-to-device"));
    makeDirectory(at("d/removed"));
    writeFile(at("d/removed/file"));
    writeFile(at("d/file"));
    EXPECT_FALSE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(at("d")), UnorderedElementsAre("sub", "other", "third", "fourth", "fifth"));
    EXPECT_THAT(namesIn(at("d/sub")), ElementsAre("pipe"));
    EXPECT_THAT(namesIn(at("d/other")), ElementsAre("socket"));
    EXPECT_THAT(namesIn(at("d/third")), ElementsAre("dangling"));
    EXPECT_THAT(namesIn(at("d/fourth")), ElementsAre("link-to-pipe"));
    EXPECT_THAT(namesIn(at("d/fifth")), ElementsAre("link-to-device"));
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesLinksToFilesAndKeepsTheFiles) {
    writeFile(at("file"), "kept");
    makeDirectory(at("d"));
    makeLink("../file", at("d/link"));
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_EQ(readFile(at("file")), "kept");
}

TEST_F(RemoveDirectoryRecursiveTest, EmptiesTheTargetsOfLinksToDirectories) {
    makeDirectory(at("outside"));
    makeDirectory(at("outside/sub"));
    writeFile(at("outside/sub/file"));
    writeFile(at("outside/file"));
    makeDirectory(at("d"));
    makeLink(at("outside"), at("d/link"));
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_FALSE(entryExists(at("d")));
    ASSERT_TRUE(entryExists(at("outside")));
    EXPECT_THAT(namesIn(at("outside")), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, EmptiesATargetThatSeveralLinksName) {
    makeDirectory(at("outside"));
    makePipe(at("outside/pipe"));
    makeDirectory(at("d"));
    makeLink("../outside", at("d/one"));
    makeLink("../outside", at("d/two"));
    makeDirectory(at("d/sub"));
    makeLink("../../outside", at("d/sub/three"));
    writeFile(at("outside/file"));
    EXPECT_TRUE(removeRecursively(at("d"))) << "the links go, whatever stays in their target";
    EXPECT_FALSE(entryExists(at("d")));
    EXPECT_THAT(namesIn(at("outside")), ElementsAre("pipe"));
}

TEST_F(RemoveDirectoryRecursiveTest, StartsAtALinkToo) {
    makeDirectory(at("outside"));
    writeFile(at("outside/file"));
    makeLink("outside", at("link"));
    EXPECT_TRUE(removeRecursively(at("link")));
    EXPECT_THAT(namesIn(root), ElementsAre("outside"));
    EXPECT_THAT(namesIn(at("outside")), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesLinksToTheDirectoriesAboveThem) {
    makeDirectory(at("d"));
    makeDirectory(at("d/a"));
    makeDirectory(at("d/a/b"));
    makeLink(".", at("d/a/b/itself"));
    makeLink("../..", at("d/a/b/up"));
    makeLink(at("d"), at("d/a/b/again"));
    makeLink("a", at("d/to-a"));
    writeFile(at("d/a/b/file"));
    writeFile(at("d/file"));
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(root), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, EmptiesADirectoryAboveItselfThroughALink) {
    makeDirectory(at("above"));
    makeDirectory(at("above/d"));
    writeFile(at("above/d/file"));
    writeFile(at("above/file"));
    makeLink("..", at("above/d/up"));
    EXPECT_TRUE(removeRecursively(at("above/d")));
    EXPECT_THAT(namesIn(at("above")), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, FollowsTwoDirectoriesThatLinkToEachOther) {
    makeDirectory(at("d"));
    makeDirectory(at("d/a"));
    makeDirectory(at("d/b"));
    makeLink("../b", at("d/a/to-b"));
    makeLink("../a", at("d/b/to-a"));
    writeFile(at("d/a/file"));
    writeFile(at("d/b/file"));
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(root), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, EndsSoonInATreeOfLinksUpwardsThatCannotBeRemoved) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("d"));
    makeDirectory(at("d/sub"));
    for (std::string const name : {"one", "two", "three", "sub/four", "sub/five"}) {
        makeLink(at("d"), at("d/") + name);
    }
    setPermissions(at("d/sub"), 0555);
    setPermissions(at("d"), 0555);
    // Followed as often as the system allows, they would lead through 3^40 directories.
    EXPECT_FALSE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(at("d")), UnorderedElementsAre("one", "two", "three", "sub"));
    EXPECT_THAT(namesIn(at("d/sub")), UnorderedElementsAre("four", "five"));
}

TEST_F(RemoveDirectoryRecursiveTest, DistinguishesDirectoriesOfDifferentFileSystems) {
    makeDirectory(at("outer"));
    test::ChildOutcome const outcome = test::onPrivateFileSystem(at("outer"), "", [this] {
        makeDirectory(at("outer/inner"));
        ASSERT_EQ(mount("ovra-test", at("outer/inner").c_str(), "tmpfs", 0, nullptr), 0);
        writeFile(at("outer/inner/file"));
        if (test::statusOf(at("outer")).st_ino != test::statusOf(at("outer/inner")).st_ino) {
            throw test::Skip{"the two file systems number their directories differently"};
        }
        EXPECT_FALSE(removeRecursively(at("outer"))) << "what is mounted cannot be removed";
        EXPECT_THAT(namesIn(at("outer/inner")), IsEmpty());
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesWhatItMayAndSaysFalseForTheRest) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("d"));
    makeDirectory(at("d/fixed"));
    writeFile(at("d/fixed/file"), "kept");
    makeDirectory(at("d/closed"));
    writeFile(at("d/closed/file"), "kept");
    makeDirectory(at("d/open"));
    writeFile(at("d/open/file"));
    writeFile(at("d/file"));
    setPermissions(at("d/fixed"), 0555);
    setPermissions(at("d/closed"), 0);
    EXPECT_FALSE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(at("d")), UnorderedElementsAre("fixed", "closed"));
    EXPECT_EQ(readFile(at("d/fixed/file")), "kept");
    setPermissions(at("d/closed"), 0700);
    EXPECT_EQ(readFile(at("d/closed/file")), "kept");
}

TEST_F(RemoveDirectoryRecursiveTest, KeepsAnEmptyDirectoryWhoseParentMayNotBeWritten) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("fixed"));
    makeDirectory(at("fixed/d"));
    writeFile(at("fixed/d/file"));
    setPermissions(at("fixed"), 0555);
    EXPECT_FALSE(removeRecursively(at("fixed/d")));
    EXPECT_THAT(namesIn(at("fixed/d")), IsEmpty()) << "what could be removed is no longer there";
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesThreeHundredLevels) {
    std::string path = at("d");
    for (int level = 0; level < 300; ++level) {
        makeDirectory(path);
        writeFile(path + "/file");
        path += "/d";
    }
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(root), IsEmpty());
}

TEST_F(RemoveDirectoryRecursiveTest, KeepsWhatNoPathIsLongEnoughFor) {
    std::string const name(200, 'n');
    std::string longestPath = root;
    {
        // Made step by step: no path names the innermost ones.
        int parent = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(parent, 0);
        for (int level = 0; level < 30; ++level) {
            ASSERT_EQ(mkdirat(parent, name.c_str(), 0777), 0);
            int const file = openat(parent, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            ASSERT_GE(file, 0);
            close(file);
            int const child = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ASSERT_GE(child, 0);
            close(parent);
            parent = child;
            if (longestPath.size() + 1 + name.size() < 4096) {
                longestPath += "/" + name;
            }
        }
        close(parent);
    }
    EXPECT_FALSE(removeRecursively(at(name)));
    EXPECT_TRUE(entryExists(longestPath)) << "it holds what could not be named";
    EXPECT_TRUE(entryExists(at("file"))) << "beside the tree, not in it";
    EXPECT_THAT(namesIn(at(name)), ElementsAre(name)) << "its file was removed";
}

TEST_F(RemoveDirectoryRecursiveTest, KeepsWhatIsDeeperThanTheDescriptorsReach) {
    std::string path = at("d");
    for (int level = 0; level < 30; ++level) {
        makeDirectory(path);
        writeFile(path + "/file");
        path += "/d";
    }
    {
        test::DescriptorLimit const ten(10);
        EXPECT_FALSE(removeRecursively(at("d")));
    }
    path = at("d");
    for (int level = 0; level < 30; ++level) {
        EXPECT_EQ(entryExists(path + "/file"), level >= 10) << "level " << level;
        path += "/d";
    }
    // Twenty levels are left below the ten that are empty but for them.
    test::DescriptorLimit const enough(30);
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_FALSE(entryExists(at("d")));
}

TEST_F(RemoveDirectoryRecursiveTest, HoldsNoMoreThanOneDescriptorForEachLevel) {
    std::string path = at("d");
    for (int level = 0; level < 10; ++level) {
        makeDirectory(path);
        makeDirectory(path + "/beside");
        writeFile(path + "/beside/file");
        path += "/d";
    }
    test::DescriptorLimit const eleven(11);
    EXPECT_TRUE(removeRecursively(at("d")));
}

TEST_F(RemoveDirectoryRecursiveTest, RemovesTenThousandEntriesOfOneDirectory) {
    makeDirectory(at("d"));
    writeFile(at("file"));
    for (int i = 0; i < 10000; ++i) {
        test::makeHardLink(at("file"), at("d/") + std::to_string(i));
    }
    EXPECT_TRUE(removeRecursively(at("d")));
    EXPECT_THAT(namesIn(root), ElementsAre("file"));
}

/// Records what it is asked for.
class AskedBackend : public FileHandleBackendImpl {
public:
    AskedBackend(std::string const& entryPath, std::vector<std::string>& record)
        : FileHandleBackendImpl(entryPath), asked(record) {}

    std::string Path() const override { return note("Path", FileHandleBackendImpl::Path()); }
    bool Exists() const override { return note("Exists", FileHandleBackendImpl::Exists()); }
    bool IsFile() const override { return note("IsFile", FileHandleBackendImpl::IsFile()); }
    bool IsDirectory() const override { return note("IsDirectory", isDirectory); }
    bool Remove() override { return note("Remove", FileHandleBackendImpl::Remove()); }
    bool RemoveDirectory() override { return note("RemoveDirectory", false); }

    bool isDirectory = true;

private:
    template <typename Answer>
    Answer note(char const* question, Answer answer) const {
        asked.push_back(question);
        return answer;
    }

    std::vector<std::string>& asked;
};

TEST_F(RemoveDirectoryRecursiveTest, AsksADerivedBackEndForTheTreeItself) {
    makeDirectory(at("d"));
    makeDirectory(at("d/sub"));
    writeFile(at("d/file"));
    for (bool const isDirectory : {false, true}) {
        std::vector<std::string> asked;
        auto backend = std::make_unique<AskedBackend>(at("d"), asked);
        backend->isDirectory = isDirectory;
        FileHandle handle("unused");
        FileHandleTestPeer::install(handle, std::move(backend));
        EXPECT_FALSE(handle.RemoveDirectoryRecursive()) << "what the back end says";
        if (!isDirectory) {
            EXPECT_THAT(asked, ElementsAre("IsDirectory"));
            EXPECT_THAT(namesIn(at("d")), UnorderedElementsAre("sub", "file"));
        } else {
            EXPECT_THAT(asked, ElementsAre("IsDirectory", "Path", "RemoveDirectory"));
            EXPECT_THAT(namesIn(at("d")), IsEmpty());
        }
    }
}

}  // namespace
}  // namespace ovra::fs
