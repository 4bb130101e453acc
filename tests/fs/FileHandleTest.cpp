#include <ovra/fs/FileHandle.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandleBackendImpl.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/fs/TestPeers.h>
#include <tests/support/VirtualTable.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::NotNull;

using ovra::test::virtualSlot;
using ovra::test::virtualSlotCount;
using test::writeFile;

using Names = std::vector<std::string>;
using Input = std::unique_ptr<std::istream>;
using Output = std::unique_ptr<std::ostream>;
using Mode = std::ios_base::openmode;

// The same operations, but for the kind of reference, on the handle and on its back end.
template <typename Class, typename Target>
constexpr bool hasTheForwardedOperations() {
    return IS<decltype(&Class::Exists), bool (Class::*)() const> &&
           IS<decltype(&Class::IsFile), bool (Class::*)() const> &&
           IS<decltype(&Class::IsDirectory), bool (Class::*)() const> &&
           IS<decltype(&Class::IsSymbolicLink), bool (Class::*)() const> &&
           IS<decltype(&Class::ListDirectory), Names (Class::*)() const> &&
           IS<decltype(&Class::Size), std::int64_t (Class::*)() const> &&
           IS<decltype(&Class::ModificationTime), std::int64_t (Class::*)() const> &&
           IS<decltype(&Class::CreateDirectory), bool (Class::*)()> &&
           IS<decltype(&Class::RemoveDirectory), bool (Class::*)()> &&
           IS<decltype(&Class::CreateSymbolicLink), bool (Class::*)(Target)> &&
           IS<decltype(&Class::Copy), bool (Class::*)(Target)> &&
           IS<decltype(&Class::Move), bool (Class::*)(Target)> &&
           IS<decltype(&Class::Rename), bool (Class::*)(std::string const&)> &&
           IS<decltype(&Class::Remove), bool (Class::*)()> &&
           IS<decltype(&Class::UserId), unsigned int (Class::*)() const> &&
           IS<decltype(&Class::SetUserId), void (Class::*)(unsigned int)> &&
           IS<decltype(&Class::GroupId), unsigned int (Class::*)() const> &&
           IS<decltype(&Class::SetGroupId), void (Class::*)(unsigned int)> &&
           IS<decltype(&Class::Permissions), unsigned long (Class::*)() const> &&
           IS<decltype(&Class::SetPermissions), void (Class::*)(unsigned long)> &&
           IS<decltype(&Class::CreateInputStream), Input (Class::*)(Mode) const> &&
           IS<decltype(&Class::CreateOutputStream), Output (Class::*)(Mode) const> &&
           IS<decltype(&Class::UpdateFileStatus), void (Class::*)()>;
}
static_assert(hasTheForwardedOperations<FileHandle, FileHandle&>());
static_assert(hasTheForwardedOperations<FileHandleBackend, FileHandle const&>());
static_assert(IS<decltype(&FileHandleBackend::Path), std::string (FileHandleBackend::*)() const>);
static_assert(
    IS<decltype(&FileHandleBackend::Open),
       std::unique_ptr<FileHandleBackend> (FileHandleBackend::*)(std::string const&) const>);
static_assert(std::is_abstract_v<FileHandleBackend>);
static_assert(sizeof(FileHandleBackend) == sizeof(void*), "no data beside the virtual table");

static_assert(IS<decltype(&FileHandle::Path), FilePath (FileHandle::*)() const>);
static_assert(IS<decltype(&FileHandle::FileName), std::string (FileHandle::*)() const>);
static_assert(IS<decltype(&FileHandle::ParentDirectory), FileHandle (FileHandle::*)() const>);
static_assert(IS<decltype(std::declval<FileHandle const&>().Open(FilePath())), FileHandle>);
static_assert(IS<decltype(std::declval<FileHandle const&>().Open(std::string())), FileHandle>);
static_assert(IS<decltype(&FileHandle::Begin), FileIterator (FileHandle::*)() const>);
static_assert(IS<decltype(&FileHandle::End), FileIterator (FileHandle::*)()>);
static_assert(IS<decltype(&FileHandle::RemoveDirectoryRecursive), bool (FileHandle::*)()>);
static_assert(
    IS<decltype(std::declval<FileHandle&>() = std::declval<FileHandle const&>()), FileHandle&>);
static_assert(std::has_virtual_destructor_v<FileHandle>);
static_assert(!std::is_default_constructible_v<FileHandle>);
static_assert(sizeof(FileHandle) == 2 * sizeof(void*), "the virtual table and the back end");

TEST(FileHandleTest, CanBeDestroyedThroughABaseClass) {
    struct Derived : FileHandle {
        explicit Derived(bool& flag) : FileHandle("unused"), destroyed(flag) {}
        ~Derived() override { destroyed = true; }
        bool& destroyed;
    };
    bool destroyed = false;
    std::unique_ptr<FileHandle> handle = std::make_unique<Derived>(destroyed);
    handle.reset();
    EXPECT_TRUE(destroyed);
}

TEST(FileHandleTest, HasAVirtualDestructorAndNoOtherVirtualOperation) {
    EXPECT_EQ(virtualSlotCount("FileHandle", "fs"), 2u);
}

TEST(FileHandleTest, HasTheBackEndsOperationsInTheirSlots) {
    std::vector<std::size_t> const slots = {
        virtualSlot(&FileHandleBackend::Path),
        virtualSlot(&FileHandleBackend::Exists),
        virtualSlot(&FileHandleBackend::IsFile),
        virtualSlot(&FileHandleBackend::IsDirectory),
        virtualSlot(&FileHandleBackend::IsSymbolicLink),
        virtualSlot(&FileHandleBackend::ListDirectory),
        virtualSlot(&FileHandleBackend::Size),
        virtualSlot(&FileHandleBackend::ModificationTime),
        virtualSlot(&FileHandleBackend::Open),
        virtualSlot(&FileHandleBackend::CreateDirectory),
        virtualSlot(&FileHandleBackend::RemoveDirectory),
        virtualSlot(&FileHandleBackend::CreateSymbolicLink),
        virtualSlot(&FileHandleBackend::Copy),
        virtualSlot(&FileHandleBackend::Move),
        virtualSlot(&FileHandleBackend::Rename),
        virtualSlot(&FileHandleBackend::Remove),
        virtualSlot(&FileHandleBackend::UserId),
        virtualSlot(&FileHandleBackend::SetUserId),
        virtualSlot(&FileHandleBackend::GroupId),
        virtualSlot(&FileHandleBackend::SetGroupId),
        virtualSlot(&FileHandleBackend::Permissions),
        virtualSlot(&FileHandleBackend::SetPermissions),
        virtualSlot(&FileHandleBackend::CreateInputStream),
        virtualSlot(&FileHandleBackend::CreateOutputStream),
        virtualSlot(&FileHandleBackend::UpdateFileStatus),
    };
    for (std::size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[i], i + 2) << "operation " << i << " after the destructor";
    }
    EXPECT_EQ(virtualSlotCount("FileHandleBackend", "fs"), slots.size() + 2);
    EXPECT_EQ(virtualSlotCount("FileHandleBackendImpl", "fs"), slots.size() + 2);
}

class FileHandleWithoutBackEndTest : public ::testing::Test {
protected:
    FileHandleWithoutBackEndTest() { FileHandleTestPeer::install(handle, nullptr); }

    FileHandle handle{"unused"};
};

TEST_F(FileHandleWithoutBackEndTest, AnswersNothing) {
    EXPECT_FALSE(handle.Exists());
    EXPECT_FALSE(handle.IsFile());
    EXPECT_FALSE(handle.IsDirectory());
    EXPECT_FALSE(handle.IsSymbolicLink());
    EXPECT_THAT(handle.ListDirectory(), IsEmpty());
    EXPECT_EQ(handle.Size(), 0);
    EXPECT_EQ(handle.ModificationTime(), 0);
    EXPECT_EQ(handle.UserId(), 0u);
    EXPECT_EQ(handle.GroupId(), 0u);
    EXPECT_EQ(handle.Permissions(), 0u);
    EXPECT_THAT(handle.CreateInputStream(std::ios_base::in), IsNull());
    EXPECT_THAT(handle.CreateOutputStream(std::ios_base::out), IsNull());
}

TEST_F(FileHandleWithoutBackEndTest, DoesNothing) {
    FileHandle target("/tmp");
    EXPECT_FALSE(handle.CreateDirectory());
    EXPECT_FALSE(handle.RemoveDirectory());
    EXPECT_FALSE(handle.RemoveDirectoryRecursive());
    EXPECT_FALSE(handle.CreateSymbolicLink(target));
    EXPECT_FALSE(handle.Copy(target));
    EXPECT_FALSE(handle.Move(target));
    EXPECT_FALSE(handle.Rename("name"));
    EXPECT_FALSE(handle.Remove());
    handle.SetUserId(1);
    handle.SetGroupId(1);
    handle.SetPermissions(0777);
    handle.UpdateFileStatus();
    EXPECT_THAT(FileHandleTestPeer::backendOf(handle), IsNull());
}

TEST_F(FileHandleWithoutBackEndTest, HasTheEmptyPath) {
    EXPECT_EQ(handle.Path().Path(), "");
    EXPECT_EQ(handle.FileName(), "");
    EXPECT_EQ(handle.ParentDirectory().Path().Path(), "") << "not /.., as for the empty path";
    EXPECT_EQ(handle.Open("x").Path().Path(), "/x");
    EXPECT_EQ(handle.Open(FilePath("x")).Path().Path(), "/x");
}

TEST_F(FileHandleWithoutBackEndTest, IteratesOverNothing) {
    FileIterator const begin = handle.Begin();
    EXPECT_THAT(FileIteratorTestPeer::backendOf(begin), IsNull());
    EXPECT_EQ(begin, handle.End());
}

TEST_F(FileHandleWithoutBackEndTest, IsCopiedToAHandleOnTheEmptyPath) {
    FileHandle const copy(handle);
    ASSERT_THAT(FileHandleTestPeer::backendOf(copy), NotNull());
    EXPECT_EQ(copy.Path().Path(), "");
    EXPECT_EQ(copy.ParentDirectory().Path().Path(), "/..");
    FileHandle assigned("x");
    assigned = handle;
    ASSERT_THAT(FileHandleTestPeer::backendOf(assigned), NotNull());
    EXPECT_EQ(assigned.Path().Path(), "");
    handle = FileHandle("y");
    EXPECT_EQ(handle.Path().Path(), "y") << "an assignment gives it a back end";
}

TEST(FileHandleTest, IsUsableAsATargetWithoutBackEnd) {
    FileHandle target("unused");
    FileHandleTestPeer::install(target, nullptr);
    FileHandle source("/proc/self/status");
    EXPECT_FALSE(source.Copy(target));
    EXPECT_FALSE(source.Move(target));
    EXPECT_FALSE(source.CreateSymbolicLink(target));
}

TEST(FileHandleTest, KeepsThePathUnchanged) {
    for (std::string const path :
         {"", "/", "a", "a//b/", "./../x", "C:", "C:\\x", "/nowhere/at/all"}) {
        FileHandle const handle(path);
        EXPECT_EQ(handle.Path().Path(), path);
        EXPECT_EQ(FileHandle(handle).Path().Path(), path);
    }
    std::string const withZero("a\0b", 3);
    EXPECT_EQ(FileHandle(withZero).Path().Path(), withZero);
}

TEST(FileHandleTest, HasAPosixBackEnd) {
    FileHandle const handle("x");
    EXPECT_TRUE(hasPosixBackend(handle));
}

TEST(FileHandleTest, NamesTheLastComponent) {
    struct Row {
        char const* path;
        char const* fileName;
    };
    for (Row const& row : std::vector<Row>{{"", ""},
                                           {"/", "/"},
                                           {"C:", "C:/"},
                                           {"file.txt", "file.txt"},
                                           {"/usr/lib/libx.so.1", "libx.so.1"},
                                           {"a/b/", "b"},
                                           {"a/b//", ""}}) {
        EXPECT_EQ(FileHandle(row.path).FileName(), row.fileName) << row.path;
    }
}

TEST(FileHandleTest, FindsTheParentByText) {
    struct Row {
        char const* path;
        char const* parent;
    };
    for (Row const& row : std::vector<Row>{{"/a/b", "/a"},
                                           {"/a/b/", "/a"},
                                           {"/a", "/"},
                                           {"/", "/.."},
                                           {"name", "."},
                                           {"a/b", "a"},
                                           {"", "/.."},
                                           {"..", "../.."},
                                           {".", ".."},
                                           {"/..", "/../.."},
                                           {"C:", "C:/.."},
                                           {"C:/x", "C:/"},
                                           {"/a//b", "/a/"},
                                           {"/a//", "/a"}}) {
        FileHandle const handle(row.path);
        EXPECT_EQ(handle.ParentDirectory().Path().Path(), row.parent) << row.path;
        EXPECT_EQ(handle.ParentDirectory().Path().Path(), handle.Path().Resolve("..").Resolved());
        EXPECT_EQ(handle.Path().Path(), row.path);
    }
}

TEST(FileHandleTest, OpensByTextAlone) {
    struct Row {
        char const* path;
        char const* name;
        char const* opened;
    };
    for (Row const& row : std::vector<Row>{{"/d", "x", "/d/x"},
                                           {"/d/", "x", "/d/x"},
                                           {"/d", "/x", "/x"},
                                           {"/d", "C:/x", "C:/x"},
                                           {"", "x", "/x"},
                                           {"d", "", "d/"},
                                           {"d", "../x/", "d/../x/"}}) {
        FileHandle const handle(row.path);
        EXPECT_EQ(handle.Open(std::string(row.name)).Path().Path(), row.opened) << row.path;
        EXPECT_EQ(handle.Open(FilePath(row.name)).Path().Path(), row.opened) << row.path;
        EXPECT_EQ(handle.Open(row.name).Path().Path(), row.opened) << row.path;
        EXPECT_EQ(handle.Path().Path(), row.path);
    }
}

class FileHandleOnDiskTest : public test::TemporaryDirectoryTest {};

TEST_F(FileHandleOnDiskTest, OpensWhatDoesNotExist) {
    FileHandle const opened = FileHandle(root).Open("missing");
    EXPECT_EQ(opened.Path().Path(), root + "/missing");
    EXPECT_FALSE(opened.Exists());
    EXPECT_THAT(test::namesIn(root), IsEmpty());
}

TEST_F(FileHandleOnDiskTest, AnswersNothingForAMissingEntry) {
    FileHandle handle(at("missing"));
    EXPECT_FALSE(handle.Exists());
    EXPECT_FALSE(handle.IsFile());
    EXPECT_FALSE(handle.IsDirectory());
    EXPECT_FALSE(handle.IsSymbolicLink());
    EXPECT_EQ(handle.Size(), 0);
    EXPECT_EQ(handle.ModificationTime(), 0);
    EXPECT_EQ(handle.UserId(), 0u);
    EXPECT_EQ(handle.GroupId(), 0u);
    EXPECT_EQ(handle.Permissions(), 0u);
    EXPECT_THAT(handle.ListDirectory(), IsEmpty());
    EXPECT_EQ(handle.Begin(), handle.End());
}

TEST_F(FileHandleOnDiskTest, StaysValidWhileTheEntryComesChangesAndGoes) {
    FileHandle handle(at("x"));
    EXPECT_FALSE(handle.Exists());
    writeFile(at("x"), "123");
    EXPECT_TRUE(handle.IsFile());
    EXPECT_EQ(handle.Size(), 3);
    writeFile(at("x"), "12345");
    EXPECT_EQ(handle.Size(), 5);
    ASSERT_EQ(std::remove(at("x").c_str()), 0);
    EXPECT_FALSE(handle.Exists());
    test::makeDirectory(at("x"));
    EXPECT_TRUE(handle.IsDirectory());
}

TEST_F(FileHandleOnDiskTest, SeesAChangeMadeThroughACopy) {
    writeFile(at("x"), "1");
    FileHandle first(at("x"));
    EXPECT_EQ(first.Size(), 1);
    FileHandle copy(first);
    copy.SetPermissions(0600);
    EXPECT_EQ(first.Permissions(), 0600u);
    *copy.CreateOutputStream(std::ios_base::binary) << "123" << std::flush;
    EXPECT_EQ(first.Size(), 3);
    EXPECT_TRUE(copy.Remove());
    EXPECT_FALSE(first.Exists());
}

TEST_F(FileHandleOnDiskTest, NamesAnotherEntryAfterAnAssignment) {
    writeFile(at("x"), "1");
    writeFile(at("y"), "123");
    FileHandle handle(at("x"));
    FileHandle const other(at("y"));
    EXPECT_EQ(handle.Size(), 1);
    EXPECT_EQ(&(handle = other), &handle);
    EXPECT_EQ(handle.Path().Path(), at("y"));
    EXPECT_EQ(handle.Size(), 3);
    FileHandle const& same = handle;
    handle = same;
    EXPECT_EQ(handle.Path().Path(), at("y"));
    EXPECT_EQ(handle.Size(), 3);
}

TEST_F(FileHandleOnDiskTest, NamesTheNewPathAfterRenameAndTheOldOneAfterMove) {
    writeFile(at("x"));
    FileHandle handle(at("x"));
    FileHandle target(at("z"));
    ASSERT_TRUE(handle.Rename("y"));
    EXPECT_EQ(handle.Path().Path(), root + "//y");
    EXPECT_TRUE(handle.Exists());
    ASSERT_TRUE(handle.Move(target));
    EXPECT_EQ(handle.Path().Path(), root + "//y");
    EXPECT_FALSE(handle.Exists());
    EXPECT_TRUE(target.Exists());
}

TEST_F(FileHandleOnDiskTest, WorksAsItsCommentShows) {
    FileHandle logs = FileHandle(root).Open("logs");
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(logs.IsDirectory() || logs.CreateDirectory());
        *logs.Open("a.txt").CreateOutputStream(std::ios_base::app) << "line\n";
    }
    EXPECT_EQ(test::readFile(at("logs/a.txt")), "line\nline\n");
    EXPECT_THAT(logs.ListDirectory(), ElementsAre("a.txt"));
    int entries = 0;
    for (FileIterator entry = logs.Begin(); entry != logs.End(); ++entry) {
        EXPECT_EQ((*entry).FileName(), "a.txt");
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

TEST_F(FileHandleOnDiskTest, IsIndependentOfOtherHandlesInOtherThreads) {
    writeFile(at("x"), "123");
    std::vector<int> good(4, 0);
    std::vector<std::thread> threads;
    for (int& count : good) {
        threads.emplace_back([this, &count] {
            FileHandle const handle(at("x"));
            for (int round = 0; round < 200; ++round) {
                count += handle.IsFile() && handle.Size() == 3 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(good, ElementsAre(200, 200, 200, 200));
}

}  // namespace
}  // namespace ovra::fs
