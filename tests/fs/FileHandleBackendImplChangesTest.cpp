#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

using test::entryExists;
using test::isSuperuser;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::makeSocket;
using test::modeOf;
using test::OrdinaryUser;
using test::permissionsOf;
using test::readFile;
using test::setPermissions;
using test::statusOf;
using test::writeFile;

class FileHandleBackendImplChangesTest : public test::TemporaryDirectoryTest {};

// --- changes of attributes

TEST_F(FileHandleBackendImplChangesTest, SetsNineBitsOfPermissions) {
    writeFile(at("file"));
    FileHandleBackendImpl backend(at("file"));
    struct Row {
        unsigned long given;
        mode_t set;
    };
    for (Row const& row : std::vector<Row>{{0, 0},
                                           {0644, 0644},
                                           {0777, 0777},
                                           {04755, 0755},
                                           {02755, 0755},
                                           {01777, 0777},
                                           {07000, 0},
                                           {0100644, 0644},
                                           {~0ul, 0777}}) {
        backend.SetPermissions(row.given);
        EXPECT_EQ(permissionsOf(at("file")), row.set) << std::oct << row.given;
        EXPECT_EQ(backend.Permissions(), row.set) << std::oct << row.given;
    }
}

TEST_F(FileHandleBackendImplChangesTest, ClearsBitsBeyondTheNineWhenPermissionsAreSet) {
    writeFile(at("file"));
    setPermissions(at("file"), 06755);
    FileHandleBackendImpl backend(at("file"));
    EXPECT_EQ(backend.Permissions(), 0755u);
    backend.SetPermissions(backend.Permissions());
    EXPECT_EQ(permissionsOf(at("file")), 0755u);
}

TEST_F(FileHandleBackendImplChangesTest, SetsPermissionsOfALinksTarget) {
    writeFile(at("file"));
    makeLink("file", at("link"));
    FileHandleBackendImpl backend(at("link"));
    backend.SetPermissions(0604);
    EXPECT_EQ(permissionsOf(at("file")), 0604u);
    EXPECT_TRUE(backend.IsSymbolicLink());
}

TEST_F(FileHandleBackendImplChangesTest, SetsOneIdAndKeepsTheOther) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "only the superuser may give a file away";
    }
    writeFile(at("file"));
    makeLink("file", at("link"));
    for (std::string const name : {"file", "link"}) {
        ASSERT_EQ(chown(at("file").c_str(), 11, 22), 0);
        FileHandleBackendImpl backend(at(name));
        backend.SetUserId(4000000033u);
        EXPECT_EQ(statusOf(at("file")).st_uid, 4000000033u) << name;
        EXPECT_EQ(statusOf(at("file")).st_gid, 22u) << name;
        EXPECT_EQ(backend.UserId(), 4000000033u) << name;
        backend.SetGroupId(4000000044u);
        EXPECT_EQ(statusOf(at("file")).st_uid, 4000000033u) << name;
        EXPECT_EQ(statusOf(at("file")).st_gid, 4000000044u) << name;
        EXPECT_EQ(backend.GroupId(), 4000000044u) << name;
    }
    struct stat link = {};
    ASSERT_EQ(lstat(at("link").c_str(), &link), 0);
    EXPECT_EQ(link.st_uid, geteuid()) << "the link itself stays whose it was";
}

TEST_F(FileHandleBackendImplChangesTest, SettersDoNothingToWhatIsMissing) {
    makeLink("missing", at("dangling"));
    for (std::string const name : {"missing", "dangling"}) {
        FileHandleBackendImpl backend(at(name));
        backend.SetPermissions(0777);
        backend.SetUserId(0);
        backend.SetGroupId(0);
        EXPECT_FALSE(backend.Exists()) << name;
    }
    EXPECT_THAT(test::namesIn(root), ElementsAre("dangling"));
}

TEST_F(FileHandleBackendImplChangesTest, SettersReportNothingWhenTheyAreRefused) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "takes a file of another user";
    }
    writeFile(at("file"));
    setPermissions(at("file"), 0644);
    OrdinaryUser const ordinary(root);
    FileHandleBackendImpl backend(at("file"));
    backend.SetPermissions(0777);
    backend.SetUserId(geteuid());
    backend.SetGroupId(getegid());
    EXPECT_EQ(permissionsOf(at("file")), 0644u);
    EXPECT_EQ(backend.Permissions(), 0644u);
    EXPECT_EQ(backend.UserId(), 0u);
}

// --- creation and removal

TEST_F(FileHandleBackendImplChangesTest, CreatesADirectoryAsTheUmaskAllows) {
    struct Row {
        mode_t mask;
        mode_t mode;
    };
    for (Row const& row : std::vector<Row>{{0, 0775}, {022, 0755}, {027, 0750}, {0777, 0}}) {
        FileHandleBackendImpl backend(at("directory"));
        mode_t const previous = umask(row.mask);
        EXPECT_TRUE(backend.CreateDirectory());
        umask(previous);
        EXPECT_EQ(modeOf(at("directory")), S_IFDIR | row.mode) << std::oct << row.mask;
        EXPECT_TRUE(backend.IsDirectory());
        EXPECT_TRUE(backend.RemoveDirectory());
    }
}

TEST_F(FileHandleBackendImplChangesTest, CreatesNoDirectoryWhereSomethingIs) {
    makeDirectory(at("directory"));
    writeFile(at("file"));
    makePipe(at("pipe"));
    makeLink("directory", at("link"));
    makeLink("missing", at("dangling"));
    for (std::string const name : {"directory", "file", "pipe", "link", "dangling"}) {
        mode_t const before = modeOf(at(name));
        EXPECT_FALSE(FileHandleBackendImpl(at(name)).CreateDirectory()) << name;
        EXPECT_EQ(modeOf(at(name)), before) << name;
    }
    EXPECT_FALSE(entryExists(at("missing")));
}

TEST_F(FileHandleBackendImplChangesTest, CreatesTheLastComponentOnly) {
    EXPECT_FALSE(FileHandleBackendImpl(at("missing/below")).CreateDirectory());
    EXPECT_FALSE(entryExists(at("missing")));
    EXPECT_TRUE(FileHandleBackendImpl(at("with-separator/")).CreateDirectory());
    EXPECT_TRUE(entryExists(at("with-separator")));
    EXPECT_FALSE(FileHandleBackendImpl("").CreateDirectory());
}

TEST_F(FileHandleBackendImplChangesTest, RemoveDirectoryRemovesWhateverIsThere) {
    makeDirectory(at("directory"));
    makeDirectory(at("target"));
    writeFile(at("file"));
    writeFile(at("target-file"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("target", at("link-to-directory"));
    makeLink("target-file", at("link-to-file"));
    makeLink("pipe2", at("link-to-pipe"));
    makePipe(at("pipe2"));
    for (std::string const name : {"directory", "file", "pipe", "socket", "link-to-directory",
                                   "link-to-file", "link-to-pipe"}) {
        FileHandleBackendImpl backend(at(name));
        EXPECT_TRUE(backend.RemoveDirectory()) << name;
        EXPECT_FALSE(entryExists(at(name))) << name;
        EXPECT_FALSE(backend.Exists()) << name;
        EXPECT_TRUE(backend.RemoveDirectory()) << name << ", which is missing now";
    }
    EXPECT_THAT(test::namesIn(root), UnorderedElementsAre("target", "target-file", "pipe2"));
}

TEST_F(FileHandleBackendImplChangesTest, RemoveDirectoryKeepsADirectoryThatIsNotEmpty) {
    makeDirectory(at("directory"));
    writeFile(at("directory/file"));
    EXPECT_FALSE(FileHandleBackendImpl(at("directory")).RemoveDirectory());
    EXPECT_TRUE(entryExists(at("directory/file")));
}

TEST_F(FileHandleBackendImplChangesTest, RemoveDirectoryKeepsADanglingLinkAndSaysTrue) {
    makeLink("missing", at("dangling"));
    makeLink("loop", at("loop"));
    EXPECT_TRUE(FileHandleBackendImpl(at("dangling")).RemoveDirectory());
    EXPECT_TRUE(FileHandleBackendImpl(at("loop")).RemoveDirectory());
    EXPECT_TRUE(FileHandleBackendImpl(at("missing")).RemoveDirectory());
    EXPECT_TRUE(entryExists(at("dangling")));
    EXPECT_TRUE(entryExists(at("loop")));
}

TEST_F(FileHandleBackendImplChangesTest, RemovesFilesAndLinksThatResolve) {
    makeDirectory(at("target"));
    writeFile(at("file"));
    writeFile(at("target-file"), "kept");
    makePipe(at("pipe"));
    makeLink("target", at("link-to-directory"));
    makeLink("target-file", at("link-to-file"));
    makeLink("pipe", at("link-to-pipe"));
    for (std::string const name : {"file", "link-to-directory", "link-to-file", "link-to-pipe"}) {
        FileHandleBackendImpl backend(at(name));
        EXPECT_TRUE(backend.Remove()) << name;
        EXPECT_FALSE(entryExists(at(name))) << name;
        EXPECT_FALSE(backend.Exists()) << name;
        EXPECT_FALSE(backend.Remove()) << name << ", which is missing now";
    }
    EXPECT_EQ(readFile(at("target-file")), "kept");
    EXPECT_TRUE(entryExists(at("target")));
    EXPECT_TRUE(entryExists(at("pipe")));
}

TEST_F(FileHandleBackendImplChangesTest, RemoveKeepsEverythingElse) {
    makeDirectory(at("directory"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("missing", at("dangling"));
    makeLink("loop", at("loop"));
    for (std::string const name : {"directory", "pipe", "socket", "dangling", "loop"}) {
        EXPECT_FALSE(FileHandleBackendImpl(at(name)).Remove()) << name;
        EXPECT_TRUE(entryExists(at(name))) << name;
    }
    EXPECT_FALSE(FileHandleBackendImpl(at("missing")).Remove());
    EXPECT_FALSE(FileHandleBackendImpl("").Remove());
}

TEST_F(FileHandleBackendImplChangesTest, ChangesNothingInADirectoryThatMayNotBeWritten) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("fixed"));
    writeFile(at("fixed/file"), "kept");
    makeDirectory(at("fixed/directory"));
    setPermissions(at("fixed"), 0555);
    FileHandleBackendImpl file(at("fixed/file"));
    FileHandleBackendImpl directory(at("fixed/directory"));
    EXPECT_FALSE(FileHandleBackendImpl(at("fixed/new")).CreateDirectory());
    EXPECT_FALSE(file.Remove());
    EXPECT_FALSE(file.RemoveDirectory());
    EXPECT_FALSE(directory.RemoveDirectory());
    EXPECT_FALSE(file.Rename("new"));
    EXPECT_EQ(file.Path(), at("fixed/file"));
    EXPECT_FALSE(file.Move(FileHandle(at("new"))));
    EXPECT_FALSE(file.CreateSymbolicLink(FileHandle(at("fixed/new"))));
    EXPECT_FALSE(file.Copy(FileHandle(at("fixed/new"))));
    EXPECT_TRUE(FileHandleBackendImpl(at("fixed/new")).CreateOutputStream(NO_MODE)->fail());
    EXPECT_THAT(test::namesIn(at("fixed")), UnorderedElementsAre("file", "directory"));
    EXPECT_EQ(readFile(at("fixed/file")), "kept");
    EXPECT_THAT(test::namesIn(root), ElementsAre("fixed"));
}

}  // namespace
}  // namespace ovra::fs
