#include <cstdio>
#include <functional>
#include <ios>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>

#include <tests/fs/Allocations.h>
#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/fs/TestPeers.h>

namespace ovra::fs {
namespace {

using test::Allocations;
using test::makeDirectory;
using test::makeLink;
using test::openDescriptors;
using test::writeFile;

// Longer than any string keeps inside itself.
std::string const LONG = "-a-name-that-is-too-long-to-be-kept-inside-the-string";

/// What is left when memory runs out: nothing leaks, and what an operation changes either is as it
/// was or as it should be.
class AllocationTest : public test::TemporaryDirectoryTest {
protected:
    /// Runs `operation` again and again, each time with the next of its allocations failing, until
    /// all succeed. `prepare` comes before each time.
    void sweep(
        std::string const& name, std::function<void()> const& operation,
        std::function<void()> const& prepare = [] {}) {
        auto const openBefore = openDescriptors();
        int thrown = 0;
        bool failed = true;
        for (int succeeding = 0; failed; ++succeeding) {
            ASSERT_LT(succeeding, 10000) << name;
            prepare();
            int living = 0;
            bool threw = false;
            {
                Allocations allocations;
                allocations.failAfter(succeeding);
                try {
                    operation();
                } catch (std::bad_alloc const&) {
                    threw = true;
                }
                failed = allocations.hasFailed();
                living = allocations.living();
            }
            thrown += threw ? 1 : 0;
            EXPECT_EQ(living, 0) << name << " leaks when allocation " << succeeding << " fails";
            EXPECT_EQ(openDescriptors(), openBefore) << name << ", allocation " << succeeding;
            EXPECT_TRUE(failed || !threw) << name;
        }
        EXPECT_GT(thrown, 0) << name << " never ran out of memory, so nothing was tested";
    }
};

TEST_F(AllocationTest, LeavesAPathAsItWasAndAnswersLater) {
    std::string const text = "/directory" + LONG + "//file" + LONG + ".extension" + LONG;
    for (int succeeding = 0;; ++succeeding) {
        FilePath const asked(text);
        bool failed = false;
        {
            Allocations allocations;
            allocations.failAfter(succeeding);
            try {
                asked.Cache();
            } catch (std::bad_alloc const&) {
                failed = true;
            }
        }
        EXPECT_EQ(asked.Path(), text);
        EXPECT_EQ(asked.DirectoryPath(), "/directory" + LONG + "/") << succeeding;
        EXPECT_EQ(asked.FileName(), "file" + LONG + ".extension" + LONG) << succeeding;
        EXPECT_EQ(asked.FileBaseName(), "file" + LONG) << succeeding;
        EXPECT_EQ(asked.Extension(), ".extension" + LONG) << succeeding;
        EXPECT_EQ(asked.FullPath(), asked.DirectoryPath() + asked.FileName()) << succeeding;
        EXPECT_TRUE(asked.IsAbsolute()) << succeeding;
        if (!failed) {
            EXPECT_GT(succeeding, 0);
            break;
        }
    }
}

TEST_F(AllocationTest, KeepsThePathWhenANewOneCannotBeStored) {
    std::string const old = "/old";
    std::string const text = "/new" + LONG;
    FilePath const source(text);
    FilePath path(old);
    path.Cache();
    for (auto const& change :
         std::vector<std::function<void()>>{[&] { path.SetPath(text); }, [&] { path = source; }}) {
        Allocations allocations;
        allocations.failAfter(0);
        EXPECT_THROW(change(), std::bad_alloc);
        EXPECT_EQ(path.Path(), old);
        EXPECT_EQ(path.FileName(), "old");
        EXPECT_TRUE(path.IsAbsolute());
    }
}

TEST_F(AllocationTest, SplitsAPathOnlyForQuestionsAboutItsComponents) {
    struct Row {
        char const* name;
        std::function<void(FilePath&)> ask;
        bool splits;
    };
    for (Row const& row : std::vector<Row>{
             {"nothing", [](FilePath&) {}, false},
             {"Path", [](FilePath& path) { path.Path(); }, false},
             {"IsEmpty", [](FilePath& path) { path.IsEmpty(); }, false},
             {"EndingSeparator", [](FilePath& path) { path.EndingSeparator(); }, false},
             {"Resolve", [](FilePath& path) { path.Resolve("x"); }, false},
             {"Resolved", [](FilePath& path) { path.Resolved(); }, false},
             {"SetPath", [](FilePath& path) { path.SetPath("/d" + LONG + "/f" + LONG); }, false},
             {"FullPath", [](FilePath& path) { path.FullPath(); }, true},
             {"FileName", [](FilePath& path) { path.FileName(); }, true},
             {"FileBaseName", [](FilePath& path) { path.FileBaseName(); }, true},
             {"Extension", [](FilePath& path) { path.Extension(); }, true},
             {"DirectoryPath", [](FilePath& path) { path.DirectoryPath(); }, true},
             {"DriveLetter", [](FilePath& path) { path.DriveLetter(); }, true},
             {"IsAbsolute", [](FilePath& path) { path.IsAbsolute(); }, true},
             {"IsRelative", [](FilePath& path) { path.IsRelative(); }, true},
             {"Cache", [](FilePath& path) { path.Cache(); }, true},
         }) {
        FilePath path("/directory" + LONG + "/file" + LONG);
        row.ask(path);
        int made = 0;
        {
            Allocations const allocations;
            path.Cache();
            made = allocations.made();
        }
        EXPECT_EQ(made == 0, row.splits) << row.name;
    }
}

TEST_F(AllocationTest, BuildsAPathOrAComponentInOneAllocation) {
    FilePath const path("/directory" + LONG + "//file" + LONG);
    Allocations const allocations;
    path.Resolve(LONG);
    EXPECT_EQ(allocations.made(), 1);
    path.Resolved();
    EXPECT_EQ(allocations.made(), 2);
    path.Cache();
    EXPECT_EQ(allocations.made(), 6) << "directory, name, base name and full path";
}

TEST_F(AllocationTest, ReportsMemoryExhaustedByBuildingOperations) {
    FilePath const path("/base" + LONG + "/../x");
    std::string const other = "other" + LONG;
    std::string const absolute = "/absolute" + LONG;
    FilePath const otherPath(other);
    FilePath const absolutePath(absolute);
    sweep("Resolve", [&] { path.Resolve(other); });
    sweep("Resolve, absolute", [&] { path.Resolve(absolute); });
    sweep("Resolve, path", [&] { path.Resolve(otherPath); });
    sweep("Resolve, absolute path", [&] { path.Resolve(absolutePath); });
    sweep("Resolved", [&] { path.Resolved(); });
}

TEST_F(AllocationTest, ReleasesAPartlyBuiltHandle) {
    std::string const path = at("f" + LONG);
    FilePath const name("name" + LONG);
    FileHandle const handle(path);
    sweep("construction", [&] { FileHandle const made(path); });
    sweep("copy", [&] { FileHandle const made(handle); });
    sweep("Path", [&] { handle.Path(); });
    sweep("FileName", [&] { handle.FileName(); });
    sweep("ParentDirectory", [&] { handle.ParentDirectory(); });
    sweep("Open", [&] { handle.Open(name); });
    sweep("Open, text", [&] { handle.Open(name.Path()); });
}

TEST_F(AllocationTest, KeepsTheHandleWhenAnAssignmentFails) {
    std::string const oldPath = at("old" + LONG);
    FileHandle const source(at("new" + LONG));
    std::unique_ptr<FileHandle> target;
    FileHandleBackend const* before = nullptr;
    for (int succeeding = 0;; ++succeeding) {
        target = std::make_unique<FileHandle>(oldPath);
        before = FileHandleTestPeer::backendOf(*target);
        bool threw = false;
        {
            Allocations allocations;
            allocations.failAfter(succeeding);
            try {
                *target = source;
            } catch (std::bad_alloc const&) {
                threw = true;
            }
        }
        if (!threw) {
            EXPECT_GT(succeeding, 0);
            break;
        }
        EXPECT_EQ(FileHandleTestPeer::backendOf(*target), before);
        EXPECT_EQ(target->Path().Path(), oldPath);
    }
    EXPECT_EQ(target->Path().Path(), source.Path().Path());
}

TEST_F(AllocationTest, KeepsTheIteratorWhenAnAssignmentFails) {
    makeDirectory(at("d" + LONG));
    writeFile(at("d" + LONG + "/a" + LONG));
    FileIterator const source(at("d" + LONG));
    for (int succeeding = 0;; ++succeeding) {
        FileIterator target(root);
        FileIteratorBackend const* const before = FileIteratorTestPeer::backendOf(target);
        auto const openBefore = openDescriptors();
        bool threw = false;
        {
            Allocations allocations;
            allocations.failAfter(succeeding);
            try {
                target = source;
            } catch (std::bad_alloc const&) {
                threw = true;
            }
        }
        EXPECT_EQ(openDescriptors().size(), openBefore.size()) << succeeding;
        if (!threw) {
            EXPECT_GT(succeeding, 0);
            break;
        }
        EXPECT_EQ(FileIteratorTestPeer::backendOf(target), before);
        EXPECT_NE(target, FileIterator());
    }
}

TEST_F(AllocationTest, ClosesADirectoryOnEveryWayOut) {
    std::string const path = at("d" + LONG);
    makeDirectory(path);
    for (int i = 0; i < 5; ++i) {
        writeFile(path + "/" + std::to_string(i) + LONG);
    }
    FileHandle handle(path);
    FileIterator const iterator(path);
    sweep("ListDirectory", [&] { handle.ListDirectory(); });
    sweep("iteration", [&] { FileIterator const made(path); });
    sweep("copied iteration", [&] { FileIterator const made(iterator); });
    sweep("Begin", [&] { handle.Begin(); });
    sweep("scan", [&] {
        for (FileIterator entry = handle.Begin(); entry != handle.End(); ++entry) {
            (*entry).FileName();
        }
    });
}

TEST_F(AllocationTest, SurvivesInEveryOperationOnAnEntry) {
    std::string const file = at("file" + LONG);
    std::string const link = at("link" + LONG);
    FileHandle target(at("target" + LONG));
    auto const prepare = [&] {
        std::remove(target.Path().Path().c_str());
        std::remove(link.c_str());
        writeFile(file, LONG);
        makeLink(file, link);
    };
    struct Row {
        char const* name;
        std::function<void(FileHandle&)> operation;
    };
    for (Row const& row : std::vector<Row>{
             {"Exists", [](FileHandle& handle) { handle.Exists(); }},
             {"IsFile", [](FileHandle& handle) { handle.IsFile(); }},
             {"IsDirectory", [](FileHandle& handle) { handle.IsDirectory(); }},
             {"IsSymbolicLink", [](FileHandle& handle) { handle.IsSymbolicLink(); }},
             {"Size", [](FileHandle& handle) { handle.Size(); }},
             {"ModificationTime", [](FileHandle& handle) { handle.ModificationTime(); }},
             {"UserId", [](FileHandle& handle) { handle.UserId(); }},
             {"GroupId", [](FileHandle& handle) { handle.GroupId(); }},
             {"Permissions", [](FileHandle& handle) { handle.Permissions(); }},
             {"SetUserId", [](FileHandle& handle) { handle.SetUserId(handle.UserId()); }},
             {"SetGroupId", [](FileHandle& handle) { handle.SetGroupId(handle.GroupId()); }},
             {"CreateDirectory", [](FileHandle& handle) { handle.CreateDirectory(); }},
             {"RemoveDirectory", [](FileHandle& handle) { handle.RemoveDirectory(); }},
             {"Remove", [](FileHandle& handle) { handle.Remove(); }},
             {"CreateSymbolicLink", [&](FileHandle& handle) { handle.CreateSymbolicLink(target); }},
             {"Copy", [&](FileHandle& handle) { handle.Copy(target); }},
             {"Move", [&](FileHandle& handle) { handle.Move(target); }},
             {"CreateInputStream", [](FileHandle& handle) { handle.CreateInputStream(NO_MODE); }},
             {"CreateOutputStream", [](FileHandle& handle) { handle.CreateOutputStream(NO_MODE); }},
         }) {
        for (std::string const& path : {file, link}) {
            sweep(
                row.name,
                [&] {
                    FileHandle handle(path);
                    row.operation(handle);
                },
                prepare);
        }
    }
}

TEST_F(AllocationTest, KeepsNameAndEntryTogetherWhenARenameFails) {
    std::string const oldPath = at("old" + LONG);
    std::string const newName = "new" + LONG;
    writeFile(oldPath);
    for (int succeeding = 0;; ++succeeding) {
        FileHandle handle(oldPath);
        bool threw = false;
        {
            Allocations allocations;
            allocations.failAfter(succeeding);
            try {
                handle.Rename(newName);
            } catch (std::bad_alloc const&) {
                threw = true;
            }
        }
        EXPECT_TRUE(handle.Exists())
            << "it names what it holds, whatever allocation " << succeeding << " became of";
        if (!threw) {
            EXPECT_EQ(handle.Path().Path(), root + "//" + newName);
            EXPECT_GT(succeeding, 0);
            break;
        }
        EXPECT_EQ(handle.Path().Path(), oldPath);
    }
}

TEST_F(AllocationTest, ClosesAllDirectoriesOfARecursiveRemovalThatFails) {
    std::string const top = at("top" + LONG);
    auto const prepare = [&] {
        FileHandle(top).RemoveDirectoryRecursive();
        makeDirectory(top);
        makeDirectory(top + "/sub" + LONG);
        writeFile(top + "/sub" + LONG + "/file" + LONG);
        writeFile(top + "/file" + LONG);
    };
    sweep(
        "RemoveDirectoryRecursive", [&] { FileHandle(top).RemoveDirectoryRecursive(); }, prepare);
    EXPECT_FALSE(test::entryExists(top)) << "the last time all memory was there";
}

TEST_F(AllocationTest, ReadsTheStatusIntoOneRecordUntilItIsDropped) {
    writeFile(at("f"));
    FileHandleBackendImpl backend(at("f"));
    auto const allocationsOf = [](std::function<void()> const& operation) {
        Allocations allocations;
        operation();
        return allocations.made();
    };
    std::function<void()> const query = [&] { backend.Permissions(); };
    EXPECT_EQ(allocationsOf(query), 1) << "nothing is read when it is made";
    EXPECT_EQ(allocationsOf(query), 0);
    EXPECT_EQ(allocationsOf([&] { backend.Size(); }), 0);
    EXPECT_EQ(allocationsOf([&] { backend.IsSymbolicLink(); }), 0);
    backend.UpdateFileStatus();
    EXPECT_EQ(allocationsOf(query), 1) << "after it was dropped";
    EXPECT_EQ(allocationsOf(query), 0);
    backend.SetPermissions(0600);
    EXPECT_EQ(allocationsOf(query), 1) << "after a change";
    // A read that fails frees it, and the next one allocates again.
    ASSERT_EQ(std::remove(at("f").c_str()), 0);
    EXPECT_EQ(allocationsOf(query), 0);
    EXPECT_EQ(allocationsOf(query), 1);
    makeLink("missing", at("f"));
    EXPECT_EQ(allocationsOf(query), 1) << "a dangling link";
    writeFile(at("missing"));
    EXPECT_EQ(allocationsOf(query), 1);
    EXPECT_EQ(allocationsOf(query), 0) << "a link";
}

TEST_F(AllocationTest, FreesTheStatusRecordWithTheBackEnd) {
    writeFile(at("f"));
    std::string const path = at("f");
    Allocations const allocations;
    {
        FileHandleBackendImpl const backend(path);
        backend.Exists();
    }
    EXPECT_EQ(allocations.living(), 0);
}

TEST_F(AllocationTest, FreesTheStatusRecordWhenItIsDroppedOrCannotBeRead) {
    writeFile(at("f"));
    FileHandleBackendImpl backend(at("f"));
    int afterUpdate = -1;
    int afterFailure = -1;
    {
        Allocations const allocations;
        backend.Exists();
        backend.UpdateFileStatus();
        afterUpdate = allocations.living();
    }
    EXPECT_EQ(afterUpdate, 0);
    backend.Exists();
    ASSERT_EQ(std::remove(at("f").c_str()), 0);
    {
        Allocations const allocations;
        backend.Exists();
        afterFailure = allocations.living();
    }
    EXPECT_EQ(afterFailure, -1) << "the record of the first read is lost";
}

}  // namespace
}  // namespace ovra::fs
