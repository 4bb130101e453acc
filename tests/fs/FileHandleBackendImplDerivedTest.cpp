#include <ovra/fs/FileHandleBackendImpl.h>

#include <unistd.h>

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs {
namespace {

using test::entryExists;
using test::isSuperuser;
using test::makeDirectory;
using test::makeLink;
using test::readFile;
using test::statusOf;
using test::writeFile;

/// What a class derived from the back end sees and may decide.
class FileHandleBackendImplDerivedTest : public test::TemporaryDirectoryTest {};

/// Replaces answers and counts the calls that go through the virtual table.
class DerivedBackend : public FileHandleBackendImpl {
public:
    using FileHandleBackendImpl::FileHandleBackendImpl;

    bool Exists() const override {
        ++existsCalls;
        return exists.has_value() ? *exists : FileHandleBackendImpl::Exists();
    }
    bool IsFile() const override {
        ++isFileCalls;
        return isFile.has_value() ? *isFile : FileHandleBackendImpl::IsFile();
    }
    bool IsSymbolicLink() const override {
        ++isSymbolicLinkCalls;
        return FileHandleBackendImpl::IsSymbolicLink();
    }
    unsigned int UserId() const override {
        ++userIdCalls;
        return FileHandleBackendImpl::UserId();
    }
    unsigned int GroupId() const override {
        ++groupIdCalls;
        return FileHandleBackendImpl::GroupId();
    }
    void UpdateFileStatus() override {
        ++updates;
        pathAtUpdate = Path();
        FileHandleBackendImpl::UpdateFileStatus();
    }
    int updatesSinceLastAsked() {
        int const count = updates;
        updates = 0;
        return count;
    }

    std::optional<bool> exists;
    std::optional<bool> isFile;
    mutable int existsCalls = 0;
    mutable int isFileCalls = 0;
    mutable int isSymbolicLinkCalls = 0;
    mutable int userIdCalls = 0;
    mutable int groupIdCalls = 0;
    int updates = 0;
    std::string pathAtUpdate;
};

TEST_F(FileHandleBackendImplDerivedTest, HonoursADerivedExistsThatDenies) {
    writeFile(at("file"), "123");
    makeDirectory(at("directory"));
    makeLink("file", at("link"));
    for (std::string const name : {"file", "directory", "link"}) {
        DerivedBackend backend(at(name));
        backend.ReadFileStatus();
        backend.exists = false;
        EXPECT_FALSE(backend.IsFile()) << name;
        EXPECT_FALSE(backend.IsDirectory()) << name;
        EXPECT_FALSE(backend.IsSymbolicLink()) << name;
        EXPECT_EQ(backend.Size(), 0) << name;
        EXPECT_EQ(backend.ModificationTime(), 0) << name;
        EXPECT_EQ(backend.UserId(), 0u) << name;
        EXPECT_EQ(backend.GroupId(), 0u) << name;
        EXPECT_EQ(backend.Permissions(), 0u) << name;
        EXPECT_TRUE(backend.RemoveDirectory()) << name;
        EXPECT_FALSE(backend.Remove()) << name;
        EXPECT_FALSE(backend.Rename("new")) << name;
        EXPECT_FALSE(backend.Move(FileHandle(at("new")))) << name;
        EXPECT_FALSE(backend.Copy(FileHandle(at("new")))) << name;
        EXPECT_FALSE(backend.CreateSymbolicLink(FileHandle(at("new")))) << name;
        EXPECT_TRUE(entryExists(at(name))) << name;
    }
    EXPECT_FALSE(entryExists(at("new")));
}

TEST_F(FileHandleBackendImplDerivedTest, TrustsNoDerivedExistsWithoutAStatusRecord) {
    writeFile(at("file"), "123");
    makeLink("file", at("link"));
    for (std::string const name : {"file", "link", "missing"}) {
        DerivedBackend backend(at(name));
        backend.exists = true;
        EXPECT_FALSE(backend.IsFile()) << name;
        EXPECT_FALSE(backend.IsDirectory()) << name;
        EXPECT_FALSE(backend.IsSymbolicLink()) << name;
        EXPECT_EQ(backend.Size(), 0) << name;
        EXPECT_EQ(backend.ModificationTime(), 0) << name;
        EXPECT_EQ(backend.UserId(), 0u) << name;
        EXPECT_EQ(backend.GroupId(), 0u) << name;
        EXPECT_EQ(backend.Permissions(), 0u) << name;
        backend.isFile = true;
        EXPECT_EQ(backend.Size(), 0) << name;
    }
    DerivedBackend missing(at("missing"));
    missing.exists = true;
    EXPECT_FALSE(missing.CreateDirectory());
    EXPECT_FALSE(missing.RemoveDirectory()) << "it is tried, and fails";
    EXPECT_FALSE(missing.Rename("new"));
    missing.isFile = true;
    EXPECT_FALSE(missing.Copy(FileHandle(at("copy"))));
    EXPECT_EQ(readFile(at("copy")), "") << "the target is opened although the source cannot be";
}

TEST_F(FileHandleBackendImplDerivedTest, HasItsNewPathWhenItDropsItsStatus) {
    writeFile(at("file"), "123");
    DerivedBackend backend(at("file"));
    EXPECT_TRUE(backend.Rename("new"));
    EXPECT_EQ(backend.pathAtUpdate, backend.Path());
}

TEST_F(FileHandleBackendImplDerivedTest, DropsItsStatusWhenTold) {
    writeFile(at("link-target"), "123");
    makeLink("link-target", at("link"));
    DerivedBackend backend(at("link"));
    backend.ReadFileStatus();
    backend.exists = true;
    EXPECT_TRUE(backend.IsFile());
    EXPECT_TRUE(backend.IsSymbolicLink());
    EXPECT_EQ(backend.Size(), 3);
    backend.UpdateFileStatus();
    EXPECT_FALSE(backend.IsFile());
    EXPECT_FALSE(backend.IsSymbolicLink());
    EXPECT_EQ(backend.Size(), 0);
    // A failed read leaves no status either.
    backend.ReadFileStatus();
    EXPECT_EQ(backend.Size(), 3);
    ASSERT_EQ(unlink(at("link-target").c_str()), 0);
    backend.ReadFileStatus();
    EXPECT_FALSE(backend.IsSymbolicLink());
    EXPECT_EQ(backend.Permissions(), 0u);
    writeFile(at("link-target"), "12");
    backend.ReadFileStatus();
    EXPECT_EQ(backend.Size(), 2);
    ASSERT_EQ(unlink(at("link").c_str()), 0);
    backend.ReadFileStatus();
    EXPECT_FALSE(backend.IsSymbolicLink());
    EXPECT_EQ(backend.Size(), 0);
}

TEST_F(FileHandleBackendImplDerivedTest, AsksExistsOncePerQuery) {
    writeFile(at("file"), "123");
    DerivedBackend const backend(at("file"));
    int expected = 0;
    backend.IsFile();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.IsDirectory();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.IsSymbolicLink();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.ModificationTime();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.UserId();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.GroupId();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.Permissions();
    EXPECT_EQ(backend.existsCalls, ++expected);
    backend.isFileCalls = 0;
    backend.Size();
    EXPECT_EQ(backend.existsCalls, ++expected);
    EXPECT_EQ(backend.isFileCalls, 1);
}

TEST_F(FileHandleBackendImplDerivedTest, AsksADerivedIsFileForTheSize) {
    writeFile(at("file"), "123");
    DerivedBackend file(at("file"));
    file.isFile = false;
    EXPECT_EQ(file.Size(), 0);
    makeDirectory(at("directory"));
    DerivedBackend directory(at("directory"));
    directory.isFile = true;
    directory.ReadFileStatus();
    EXPECT_EQ(directory.Size(), statusOf(at("directory")).st_size);
    EXPECT_NE(directory.Size(), 0);
}

TEST_F(FileHandleBackendImplDerivedTest, AsksADerivedIsFileBeforeItCopiesAndRemoves) {
    writeFile(at("file"), "123");
    DerivedBackend backend(at("file"));
    backend.isFile = false;
    EXPECT_FALSE(backend.Copy(FileHandle(at("copy"))));
    EXPECT_FALSE(entryExists(at("copy")));
    EXPECT_FALSE(backend.Remove());
    EXPECT_EQ(backend.isSymbolicLinkCalls, 1);
    EXPECT_TRUE(entryExists(at("file")));
    backend.isFile = true;
    backend.isSymbolicLinkCalls = 0;
    EXPECT_TRUE(backend.Remove());
    EXPECT_EQ(backend.isSymbolicLinkCalls, 0) << "a file is not asked twice";
}

TEST_F(FileHandleBackendImplDerivedTest, DropsTheStatusAfterEveryChangeThatWorked) {
    FileHandle const missingParent(at("missing/x"));
    FileHandle const link(at("link"));
    FileHandle const copy(at("copy"));
    FileHandle const moved(at("moved"));

    DerivedBackend directory(at("directory"));
    EXPECT_TRUE(directory.CreateDirectory());
    EXPECT_EQ(directory.updatesSinceLastAsked(), 1);
    EXPECT_FALSE(directory.CreateDirectory());
    EXPECT_EQ(directory.updatesSinceLastAsked(), 0);
    writeFile(at("directory/x"));
    EXPECT_FALSE(directory.RemoveDirectory());
    EXPECT_FALSE(directory.Remove());
    EXPECT_EQ(directory.updatesSinceLastAsked(), 0);
    ASSERT_EQ(unlink(at("directory/x").c_str()), 0);
    EXPECT_TRUE(directory.RemoveDirectory());
    EXPECT_EQ(directory.updatesSinceLastAsked(), 1);
    EXPECT_TRUE(directory.RemoveDirectory());
    EXPECT_EQ(directory.updatesSinceLastAsked(), 0) << "nothing was there to remove";

    writeFile(at("file"));
    DerivedBackend file(at("file"));
    file.SetPermissions(0600);
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
    file.SetUserId(geteuid());
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
    file.SetGroupId(getegid());
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
    EXPECT_TRUE(file.Copy(copy));
    EXPECT_TRUE(file.CreateSymbolicLink(link));
    EXPECT_TRUE(file.CreateInputStream(NO_MODE)->good());
    EXPECT_TRUE(file.CreateOutputStream(NO_MODE)->good());
    EXPECT_FALSE(file.Move(missingParent));
    EXPECT_FALSE(file.Rename("missing/x"));
    EXPECT_EQ(file.updatesSinceLastAsked(), 0);
    EXPECT_TRUE(file.Rename("renamed"));
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
    EXPECT_TRUE(file.Move(moved));
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
    EXPECT_FALSE(file.Remove());
    EXPECT_EQ(file.updatesSinceLastAsked(), 0);
    file.SetPermissions(0600);
    file.SetUserId(geteuid());
    file.SetGroupId(getegid());
    EXPECT_EQ(file.updatesSinceLastAsked(), 3) << "the setters do not look at their result";
    writeFile(at("renamed"));
    EXPECT_TRUE(file.Remove());
    EXPECT_EQ(file.updatesSinceLastAsked(), 1);
}

TEST_F(FileHandleBackendImplDerivedTest, ReadsTheOtherIdThroughTheVirtualTable) {
    writeFile(at("file"));
    DerivedBackend backend(at("file"));
    backend.SetUserId(geteuid());
    EXPECT_EQ(backend.groupIdCalls, 1);
    EXPECT_EQ(backend.userIdCalls, 0);
    backend.SetGroupId(getegid());
    EXPECT_EQ(backend.groupIdCalls, 1);
    EXPECT_EQ(backend.userIdCalls, 1);
}

TEST_F(FileHandleBackendImplDerivedTest, PassesTheIdThatADerivedBackEndReads) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "only the superuser may give a file away";
    }
    struct OtherIds : FileHandleBackendImpl {
        using FileHandleBackendImpl::FileHandleBackendImpl;
        unsigned int UserId() const override { return 77; }
        unsigned int GroupId() const override { return 88; }
    };
    writeFile(at("file"));
    OtherIds backend(at("file"));
    backend.SetUserId(1);
    EXPECT_EQ(statusOf(at("file")).st_uid, 1u);
    EXPECT_EQ(statusOf(at("file")).st_gid, 88u);
    backend.SetGroupId(2);
    EXPECT_EQ(statusOf(at("file")).st_uid, 77u);
    EXPECT_EQ(statusOf(at("file")).st_gid, 2u);
}

}  // namespace
}  // namespace ovra::fs
