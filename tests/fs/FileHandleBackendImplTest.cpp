#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include "TemporaryDirectory.h"

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::NotNull;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

using test::entryExists;
using test::isSuperuser;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::makeSocket;
using test::modeOf;
using test::OrdinaryUser;
using test::patternlessBytes;
using test::permissionsOf;
using test::readFile;
using test::setModificationTime;
using test::setPermissions;
using test::statusOf;
using test::writeFile;

constexpr std::ios_base::openmode NO_MODE{};

static_assert(std::is_base_of_v<FileHandleBackend, FileHandleBackendImpl>);
static_assert(std::is_constructible_v<FileHandleBackendImpl, std::string const&>);
static_assert(!std::is_copy_constructible_v<FileHandleBackendImpl>);
static_assert(!std::is_copy_assignable_v<FileHandleBackendImpl>);
static_assert(!std::is_polymorphic_v<FilePath>);
static_assert(std::is_same_v<decltype(&FileHandleBackendImpl::ReadFileStatus),
                             void (FileHandleBackendImpl::*)() const>);

class FileHandleBackendImplTest : public test::TemporaryDirectoryTest {};

// --- status

TEST_F(FileHandleBackendImplTest, TellsKindsApart) {
    writeFile(at("file"), "12345");
    writeFile(at("empty"), "");
    makeDirectory(at("directory"));
    makeLink("file", at("link-to-file"));
    makeLink(at("directory"), at("link-to-directory"));
    makeLink("link-to-file", at("link-to-link"));
    makeLink("missing", at("dangling"));
    makeLink("dangling", at("link-to-dangling"));
    makeLink("loop", at("loop"));
    makeLink("pong", at("ping"));
    makeLink("ping", at("pong"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("pipe", at("link-to-pipe"));
    struct Row {
        std::string path;
        bool exists;
        bool isFile;
        bool isDirectory;
        bool isLink;
        int size;
    };
    for (Row const& row : std::vector<Row>{
             {at("file"), true, true, false, false, 5},
             {at("empty"), true, true, false, false, 0},
             {at("directory"), true, false, true, false, 0},
             {at("link-to-file"), true, true, false, true, 5},
             {at("link-to-directory"), true, false, true, true, 0},
             {at("link-to-link"), true, true, false, true, 5},
             {at("dangling"), false, false, false, false, 0},
             {at("link-to-dangling"), false, false, false, false, 0},
             {at("loop"), false, false, false, false, 0},
             {at("ping"), false, false, false, false, 0},
             {at("pipe"), true, false, false, false, 0},
             {at("socket"), true, false, false, false, 0},
             {at("link-to-pipe"), true, false, false, true, 0},
             {"/dev/null", true, false, false, false, 0},
             {at("missing"), false, false, false, false, 0},
             {at("missing/below"), false, false, false, false, 0},
             {at("file/below"), false, false, false, false, 0},
             {at("file/"), false, false, false, false, 0},
             {at("directory/"), true, false, true, false, 0},
             // The "/" makes the system follow the link before it looks.
             {at("link-to-directory/"), true, false, true, false, 0},
             {"", false, false, false, false, 0},
             {"/", true, false, true, false, 0},
         }) {
        FileHandleBackendImpl const backend(row.path);
        EXPECT_EQ(backend.Exists(), row.exists) << row.path;
        EXPECT_EQ(backend.IsFile(), row.isFile) << row.path;
        EXPECT_EQ(backend.IsDirectory(), row.isDirectory) << row.path;
        EXPECT_EQ(backend.IsSymbolicLink(), row.isLink) << row.path;
        EXPECT_EQ(backend.Size(), row.size) << row.path;
        EXPECT_EQ(backend.Path(), row.path);
    }
}

TEST_F(FileHandleBackendImplTest, ReadsTheAttributesOfALinksTarget) {
    writeFile(at("file"), "12345");
    setPermissions(at("file"), 0640);
    setModificationTime(at("file"), 1000000000);
    makeLink("file", at("link"));
    for (std::string const name : {"file", "link"}) {
        FileHandleBackendImpl const backend(at(name));
        struct stat const expected = statusOf(at("file"));
        EXPECT_EQ(backend.Permissions(), 0640u) << name;
        EXPECT_EQ(backend.ModificationTime(), 1000000000) << name;
        EXPECT_EQ(backend.UserId(), expected.st_uid) << name;
        EXPECT_EQ(backend.GroupId(), expected.st_gid) << name;
    }
}

TEST_F(FileHandleBackendImplTest, ReadsOwnersAsTheyAre) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "only the superuser may give a file away";
    }
    writeFile(at("file"));
    ASSERT_EQ(chown(at("file").c_str(), 4000000001u, 4000000002u), 0);
    FileHandleBackendImpl const backend(at("file"));
    EXPECT_EQ(backend.UserId(), 4000000001u);
    EXPECT_EQ(backend.GroupId(), 4000000002u);
}

TEST_F(FileHandleBackendImplTest, ReadsAttributesOfDirectoriesAndSpecialFiles) {
    makeDirectory(at("directory"));
    makePipe(at("pipe"));
    for (std::string const name : {"directory", "pipe"}) {
        setPermissions(at(name), 0710);
        setModificationTime(at(name), 1234567890);
        FileHandleBackendImpl const backend(at(name));
        EXPECT_EQ(backend.Permissions(), 0710u) << name;
        EXPECT_EQ(backend.ModificationTime(), 1234567890) << name;
        EXPECT_EQ(backend.UserId(), geteuid()) << name;
        EXPECT_EQ(backend.GroupId(), statusOf(at(name)).st_gid) << name;
    }
    EXPECT_GT(statusOf(at("directory")).st_size, 0) << "or the size 0 below says nothing";
    EXPECT_EQ(FileHandleBackendImpl(at("directory")).Size(), 0);
}

TEST_F(FileHandleBackendImplTest, AnswersZeroForWhatDoesNotExist) {
    makeLink("missing", at("dangling"));
    makeLink("loop", at("loop"));
    for (std::string const name : {"missing", "dangling", "loop"}) {
        FileHandleBackendImpl const backend(at(name));
        EXPECT_EQ(backend.ModificationTime(), 0) << name;
        EXPECT_EQ(backend.UserId(), 0u) << name;
        EXPECT_EQ(backend.GroupId(), 0u) << name;
        EXPECT_EQ(backend.Permissions(), 0u) << name;
        EXPECT_THAT(backend.ListDirectory(), IsEmpty()) << name;
    }
}

TEST_F(FileHandleBackendImplTest, NeverAnswersFromAnEarlierRead) {
    FileHandleBackendImpl const backend(at("x"));
    EXPECT_FALSE(backend.Exists());
    writeFile(at("x"), "123");
    setPermissions(at("x"), 0600);
    setModificationTime(at("x"), 5);
    EXPECT_TRUE(backend.IsFile());
    EXPECT_EQ(backend.Size(), 3);
    EXPECT_EQ(backend.Permissions(), 0600u);
    EXPECT_EQ(backend.ModificationTime(), 5);
    ASSERT_EQ(unlink(at("x").c_str()), 0);
    EXPECT_FALSE(backend.IsFile());
    EXPECT_EQ(backend.Size(), 0);
    EXPECT_EQ(backend.Permissions(), 0u);
    EXPECT_EQ(backend.ModificationTime(), 0);
    EXPECT_EQ(backend.UserId(), 0u);
    makeDirectory(at("target"));
    makeLink("target", at("x"));
    EXPECT_TRUE(backend.IsSymbolicLink());
    EXPECT_TRUE(backend.IsDirectory());
    ASSERT_EQ(rmdir(at("target").c_str()), 0);
    EXPECT_FALSE(backend.IsSymbolicLink());
    EXPECT_FALSE(backend.IsDirectory());
    ASSERT_EQ(unlink(at("x").c_str()), 0);
    writeFile(at("x"), "1");
    EXPECT_FALSE(backend.IsSymbolicLink());
    EXPECT_EQ(backend.Size(), 1);
}

TEST_F(FileHandleBackendImplTest, SeesTheChangesOfAnotherObjectOnThePath) {
    FileHandleBackendImpl one(at("x"));
    FileHandleBackendImpl const other(at("x"));
    ASSERT_TRUE(one.CreateDirectory());
    EXPECT_TRUE(other.IsDirectory());
    one.SetPermissions(0700);
    EXPECT_EQ(other.Permissions(), 0700u);
    ASSERT_TRUE(one.RemoveDirectory());
    EXPECT_FALSE(other.Exists());
}

TEST_F(FileHandleBackendImplTest, ReportsNineBitsOfPermissions) {
    writeFile(at("file"));
    for (mode_t const mode : {0u, 0777u, 0644u, 04755u, 02755u, 01777u, 07777u, 0001u, 0400u}) {
        setPermissions(at("file"), mode);
        ASSERT_EQ(permissionsOf(at("file")), mode) << "the file system keeps what it is given";
        EXPECT_EQ(FileHandleBackendImpl(at("file")).Permissions(), mode & 0777);
    }
}

TEST_F(FileHandleBackendImplTest, ReportsWholeSecondsBefore1970AndAfter2038) {
    writeFile(at("file"));
    for (std::int64_t const seconds :
         {std::int64_t{-631152000}, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1},
          std::int64_t{2147483647}, std::int64_t{2147483648}, std::int64_t{4102444800},
          std::int64_t{5000000000}}) {
        setModificationTime(at("file"), seconds, 999999999);
        if (statusOf(at("file")).st_mtim.tv_sec != seconds) {
            GTEST_SKIP() << "this file system does not keep the time " << seconds;
        }
        EXPECT_EQ(FileHandleBackendImpl(at("file")).ModificationTime(), seconds);
    }
}

TEST_F(FileHandleBackendImplTest, ReportsSizesOver4GiB) {
    constexpr std::int64_t SIZE_BYTES = 5 * (std::int64_t{1} << 30) + 1;
    writeFile(at("sparse"), "");
    if (truncate(at("sparse").c_str(), SIZE_BYTES) != 0) {
        GTEST_SKIP() << "this file system has no sparse files of 5 GiB";
    }
    FileHandleBackendImpl const backend(at("sparse"));
    EXPECT_TRUE(backend.IsFile());
    EXPECT_EQ(backend.Size(), SIZE_BYTES);
}

TEST_F(FileHandleBackendImplTest, WorksOnNamesOfAnyByte) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '/') {
            continue;
        }
        // ".." and "." are taken, "C:" would do as well as any: below a directory it is no root.
        std::string const name = std::string(1, static_cast<char>(byte)) + "x";
        FileHandleBackendImpl backend(at(name));
        *backend.CreateOutputStream(NO_MODE) << byte << std::flush;
        EXPECT_TRUE(backend.IsFile()) << byte;
        EXPECT_EQ(readFile(at(name)), std::to_string(byte));
        ASSERT_TRUE(backend.Rename("renamed" + name)) << byte;
        EXPECT_TRUE(entryExists(at("renamed" + name))) << byte;
        EXPECT_TRUE(backend.Remove()) << byte;
    }
    EXPECT_THAT(test::namesIn(root), IsEmpty());
}

TEST_F(FileHandleBackendImplTest, GivesTheSystemThePathUpToAZeroByte) {
    writeFile(at("x"), "123");
    std::string const path = at("x") + std::string("\0ignored", 8);
    FileHandleBackendImpl backend(path);
    EXPECT_EQ(backend.Path(), path);
    EXPECT_EQ(backend.Size(), 3);
    std::string word;
    *backend.CreateInputStream(NO_MODE) >> word;
    EXPECT_EQ(word, "123");
}

TEST_F(FileHandleBackendImplTest, TakesPathsUpToTheSystemsLimit) {
    writeFile(at("x"), "123");
    writeFile(at("xx"), "123");
    auto const pathOfLength = [this](std::size_t length) {
        std::string path = root + "/";
        while (path.size() + 3 <= length) {
            path += "./";
        }
        path.resize(length, 'x');
        return path;
    };
    // The limit counts the closing zero.
    std::string const longest = pathOfLength(PATH_MAX - 1);
    ASSERT_EQ(longest.size(), std::size_t{PATH_MAX - 1});
    FileHandleBackendImpl fits(longest);
    EXPECT_TRUE(fits.IsFile());
    EXPECT_EQ(fits.Size(), 3);
    EXPECT_TRUE(fits.CreateInputStream(NO_MODE)->good());

    for (std::size_t const length : {std::size_t{PATH_MAX}, std::size_t{100000}}) {
        std::string const path = pathOfLength(length);
        ASSERT_EQ(path.size(), length);
        FileHandleBackendImpl tooLong(path);
        EXPECT_EQ(tooLong.Path(), path);
        EXPECT_FALSE(tooLong.Exists());
        EXPECT_EQ(tooLong.Size(), 0);
        EXPECT_FALSE(tooLong.CreateDirectory());
        EXPECT_TRUE(tooLong.RemoveDirectory());
        EXPECT_FALSE(tooLong.Remove());
        EXPECT_FALSE(tooLong.Rename("y"));
        EXPECT_THAT(tooLong.ListDirectory(), IsEmpty());
        EXPECT_TRUE(tooLong.CreateInputStream(NO_MODE)->fail());
        EXPECT_TRUE(tooLong.CreateOutputStream(NO_MODE)->fail());
        EXPECT_FALSE(FileHandleBackendImpl(at("x")).Move(FileHandle(path)));
    }
    EXPECT_FALSE(FileHandleBackendImpl(at(std::string(256, 'n'))).CreateDirectory());
    EXPECT_TRUE(FileHandleBackendImpl(at(std::string(255, 'n'))).CreateDirectory());
}

TEST_F(FileHandleBackendImplTest, SeesNothingBehindAClosedDirectory) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("closed"));
    writeFile(at("closed/file"), "123");
    setPermissions(at("closed"), 0600);
    FileHandleBackendImpl file(at("closed/file"));
    EXPECT_FALSE(file.Exists());
    EXPECT_FALSE(file.IsFile());
    EXPECT_EQ(file.Size(), 0);
    EXPECT_EQ(file.ModificationTime(), 0);
    EXPECT_EQ(file.UserId(), 0u);
    EXPECT_EQ(file.GroupId(), 0u);
    EXPECT_EQ(file.Permissions(), 0u);
    EXPECT_FALSE(file.Remove());
    EXPECT_FALSE(file.CreateDirectory());
    EXPECT_FALSE(file.Rename("other"));
    EXPECT_FALSE(file.Move(FileHandle(at("moved"))));
    EXPECT_FALSE(file.Copy(FileHandle(at("copied"))));
    EXPECT_FALSE(file.CreateSymbolicLink(FileHandle(at("link"))));
    EXPECT_TRUE(file.RemoveDirectory()) << "what cannot be seen counts as removed";
    file.SetPermissions(0777);
    file.SetUserId(geteuid());
    file.SetGroupId(getegid());
    setPermissions(at("closed"), 0700);
    EXPECT_EQ(readFile(at("closed/file")), "123");
    EXPECT_EQ(permissionsOf(at("closed/file")), 0644u);
    EXPECT_THAT(test::namesIn(root), ElementsAre("closed"));
}

// --- what a derived back end may decide

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
};

TEST_F(FileHandleBackendImplTest, HonoursADerivedExistsThatDenies) {
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

TEST_F(FileHandleBackendImplTest, TrustsNoDerivedExistsWithoutAStatusRecord) {
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

TEST_F(FileHandleBackendImplTest, DropsItsStatusWhenTold) {
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

TEST_F(FileHandleBackendImplTest, AsksExistsOncePerQuery) {
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

TEST_F(FileHandleBackendImplTest, AsksADerivedIsFileForTheSize) {
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

TEST_F(FileHandleBackendImplTest, AsksADerivedIsFileBeforeItCopiesAndRemoves) {
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

TEST_F(FileHandleBackendImplTest, DropsTheStatusAfterEveryChangeThatWorked) {
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

TEST_F(FileHandleBackendImplTest, ReadsTheOtherIdThroughTheVirtualTable) {
    writeFile(at("file"));
    DerivedBackend backend(at("file"));
    backend.SetUserId(geteuid());
    EXPECT_EQ(backend.groupIdCalls, 1);
    EXPECT_EQ(backend.userIdCalls, 0);
    backend.SetGroupId(getegid());
    EXPECT_EQ(backend.groupIdCalls, 1);
    EXPECT_EQ(backend.userIdCalls, 1);
}

// --- changes of attributes

TEST_F(FileHandleBackendImplTest, SetsNineBitsOfPermissions) {
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

TEST_F(FileHandleBackendImplTest, ClearsBitsBeyondTheNineWhenPermissionsAreSet) {
    writeFile(at("file"));
    setPermissions(at("file"), 06755);
    FileHandleBackendImpl backend(at("file"));
    EXPECT_EQ(backend.Permissions(), 0755u);
    backend.SetPermissions(backend.Permissions());
    EXPECT_EQ(permissionsOf(at("file")), 0755u);
}

TEST_F(FileHandleBackendImplTest, SetsPermissionsOfALinksTarget) {
    writeFile(at("file"));
    makeLink("file", at("link"));
    FileHandleBackendImpl backend(at("link"));
    backend.SetPermissions(0604);
    EXPECT_EQ(permissionsOf(at("file")), 0604u);
    EXPECT_TRUE(backend.IsSymbolicLink());
}

TEST_F(FileHandleBackendImplTest, SetsOneIdAndKeepsTheOther) {
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

TEST_F(FileHandleBackendImplTest, PassesTheIdThatADerivedBackEndReads) {
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

TEST_F(FileHandleBackendImplTest, SettersDoNothingToWhatIsMissing) {
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

TEST_F(FileHandleBackendImplTest, SettersReportNothingWhenTheyAreRefused) {
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

TEST_F(FileHandleBackendImplTest, CreatesADirectoryAsTheUmaskAllows) {
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

TEST_F(FileHandleBackendImplTest, CreatesNoDirectoryWhereSomethingIs) {
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

TEST_F(FileHandleBackendImplTest, CreatesTheLastComponentOnly) {
    EXPECT_FALSE(FileHandleBackendImpl(at("missing/below")).CreateDirectory());
    EXPECT_FALSE(entryExists(at("missing")));
    EXPECT_TRUE(FileHandleBackendImpl(at("with-separator/")).CreateDirectory());
    EXPECT_TRUE(entryExists(at("with-separator")));
    EXPECT_FALSE(FileHandleBackendImpl("").CreateDirectory());
}

TEST_F(FileHandleBackendImplTest, RemoveDirectoryRemovesWhateverIsThere) {
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

TEST_F(FileHandleBackendImplTest, RemoveDirectoryKeepsADirectoryThatIsNotEmpty) {
    makeDirectory(at("directory"));
    writeFile(at("directory/file"));
    EXPECT_FALSE(FileHandleBackendImpl(at("directory")).RemoveDirectory());
    EXPECT_TRUE(entryExists(at("directory/file")));
}

TEST_F(FileHandleBackendImplTest, RemoveDirectoryKeepsADanglingLinkAndSaysTrue) {
    makeLink("missing", at("dangling"));
    makeLink("loop", at("loop"));
    EXPECT_TRUE(FileHandleBackendImpl(at("dangling")).RemoveDirectory());
    EXPECT_TRUE(FileHandleBackendImpl(at("loop")).RemoveDirectory());
    EXPECT_TRUE(FileHandleBackendImpl(at("missing")).RemoveDirectory());
    EXPECT_TRUE(entryExists(at("dangling")));
    EXPECT_TRUE(entryExists(at("loop")));
}

TEST_F(FileHandleBackendImplTest, RemovesFilesAndLinksThatResolve) {
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

TEST_F(FileHandleBackendImplTest, RemoveKeepsEverythingElse) {
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

TEST_F(FileHandleBackendImplTest, ChangesNothingInADirectoryThatMayNotBeWritten) {
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

// --- streams

TEST_F(FileHandleBackendImplTest, OpensInputStreams) {
    writeFile(at("file"), "first second");
    FileHandleBackendImpl const backend(at("file"));
    for (std::ios_base::openmode const mode : {NO_MODE, std::ios_base::in, std::ios_base::binary,
                                               std::ios_base::in | std::ios_base::binary}) {
        std::unique_ptr<std::istream> const stream = backend.CreateInputStream(mode);
        ASSERT_THAT(stream, NotNull());
        EXPECT_THAT(dynamic_cast<std::ifstream*>(stream.get()), NotNull());
        EXPECT_TRUE(stream->good());
        std::string word;
        *stream >> word;
        EXPECT_EQ(word, "first");
    }
    std::unique_ptr<std::istream> const atEnd = backend.CreateInputStream(std::ios_base::ate);
    EXPECT_EQ(atEnd->tellg(), std::streampos(12)) << "the mode given counts";
    EXPECT_EQ(readFile(at("file")), "first second");
}

TEST_F(FileHandleBackendImplTest, GivesAFailedInputStreamWhenItCannotOpen) {
    makeLink("missing", at("dangling"));
    for (std::string const& path : {at("missing"), at("dangling"), std::string()}) {
        std::unique_ptr<std::istream> const stream =
            FileHandleBackendImpl(path).CreateInputStream(NO_MODE);
        ASSERT_THAT(stream, NotNull()) << path;
        EXPECT_EQ(stream->rdstate(), std::ios_base::failbit) << path;
    }
    EXPECT_FALSE(entryExists(at("missing")));
}

TEST_F(FileHandleBackendImplTest, OpensOutputStreams) {
    constexpr std::ios_base::openmode APPEND = std::ios_base::app;
    constexpr std::ios_base::openmode UPDATE = std::ios_base::in;
    struct Row {
        std::ios_base::openmode mode;
        std::string result;
    };
    for (Row const& row : std::vector<Row>{{NO_MODE, "new"},
                                           {std::ios_base::binary, "new"},
                                           {std::ios_base::out, "new"},
                                           {std::ios_base::trunc, "new"},
                                           {APPEND, "old contentsnew"},
                                           {APPEND | std::ios_base::binary, "old contentsnew"},
                                           {UPDATE, "new contents"}}) {
        writeFile(at("file"), "old contents");
        FileHandleBackendImpl const backend(at("file"));
        std::unique_ptr<std::ostream> stream = backend.CreateOutputStream(row.mode);
        ASSERT_THAT(stream, NotNull());
        EXPECT_THAT(dynamic_cast<std::ofstream*>(stream.get()), NotNull());
        EXPECT_TRUE(stream->good());
        *stream << "new";
        stream.reset();
        EXPECT_EQ(readFile(at("file")), row.result) << "mode " << row.mode;
    }
}

TEST_F(FileHandleBackendImplTest, CreatesTheFileOfAnOutputStreamAsTheUmaskAllows) {
    for (std::ios_base::openmode const mode :
         {NO_MODE, std::ios_base::binary, std::ios_base::app}) {
        FileHandleBackendImpl backend(at("new"));
        mode_t const previous = umask(027);
        EXPECT_TRUE(backend.CreateOutputStream(mode)->good());
        umask(previous);
        EXPECT_EQ(modeOf(at("new")), S_IFREG | 0640u);
        EXPECT_TRUE(backend.Remove());
    }
}

TEST_F(FileHandleBackendImplTest, GivesAFailedOutputStreamWhenItCannotOpen) {
    makeDirectory(at("directory"));
    for (std::string const& path : {at("missing/file"), at("directory"), std::string()}) {
        std::unique_ptr<std::ostream> const stream =
            FileHandleBackendImpl(path).CreateOutputStream(NO_MODE);
        ASSERT_THAT(stream, NotNull()) << path;
        EXPECT_EQ(stream->rdstate(), std::ios_base::failbit) << path;
    }
    std::unique_ptr<std::ostream> const update =
        FileHandleBackendImpl(at("missing")).CreateOutputStream(std::ios_base::in);
    EXPECT_TRUE(update->fail()) << "in and out together do not create";
    EXPECT_FALSE(entryExists(at("missing")));
}

TEST_F(FileHandleBackendImplTest, LetsStreamsOutliveIt) {
    auto backend = std::make_unique<FileHandleBackendImpl>(at("file"));
    std::unique_ptr<std::ostream> output = backend->CreateOutputStream(NO_MODE);
    std::unique_ptr<std::istream> const input = backend->CreateInputStream(NO_MODE);
    backend.reset();
    *output << "text" << std::flush;
    std::string word;
    *input >> word;
    EXPECT_EQ(word, "text");
}

TEST_F(FileHandleBackendImplTest, StreamsThroughANamedPipe) {
    makePipe(at("pipe"));
    // Each end waits for the other to be opened.
    std::thread writer(
        [this] { *FileHandleBackendImpl(at("pipe")).CreateOutputStream(NO_MODE) << "through"; });
    std::string word;
    *FileHandleBackendImpl(at("pipe")).CreateInputStream(NO_MODE) >> word;
    writer.join();
    EXPECT_EQ(word, "through");
}

TEST_F(FileHandleBackendImplTest, OpensNoBackEnd) {
    writeFile(at("file"));
    FileHandleBackendImpl const backend(root);
    EXPECT_THAT(backend.Open("file"), IsNull());
    EXPECT_THAT(backend.Open(""), IsNull());
    EXPECT_THAT(backend.Open(at("file")), IsNull());
}

// --- lists

TEST_F(FileHandleBackendImplTest, ListsBareNamesInTheOrderOfTheSystem) {
    std::vector<std::string> expected = {".hidden", "..two", "...", "sub", "dangling", "pipe"};
    makeDirectory(at("d"));
    writeFile(at("d/.hidden"));
    writeFile(at("d/..two"));
    writeFile(at("d/..."));
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/below"));
    makeLink("missing", at("d/dangling"));
    makePipe(at("d/pipe"));
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/' && byte != '.') {
            expected.emplace_back(1, static_cast<char>(byte));
            writeFile(at("d/") + expected.back());
        }
    }
    std::vector<std::string> const names = FileHandleBackendImpl(at("d")).ListDirectory();
    EXPECT_THAT(names, UnorderedElementsAreArray(expected));
    EXPECT_EQ(names, test::namesIn(at("d")));
}

TEST_F(FileHandleBackendImplTest, ListsNothingOfWhatIsNoReadableDirectory) {
    writeFile(at("file"));
    makeDirectory(at("empty"));
    makeLink("missing", at("dangling"));
    for (std::string const name : {"file", "empty", "dangling", "missing"}) {
        EXPECT_THAT(FileHandleBackendImpl(at(name)).ListDirectory(), IsEmpty()) << name;
    }
    EXPECT_THAT(FileHandleBackendImpl("").ListDirectory(), IsEmpty());
    OrdinaryUser const ordinary(root);
    makeDirectory(at("closed"));
    writeFile(at("closed/file"));
    setPermissions(at("closed"), 0300);
    EXPECT_THAT(FileHandleBackendImpl(at("closed")).ListDirectory(), IsEmpty());
}

TEST_F(FileHandleBackendImplTest, ListsThroughALink) {
    makeDirectory(at("directory"));
    writeFile(at("directory/file"));
    makeLink("directory", at("link"));
    EXPECT_THAT(FileHandleBackendImpl(at("link")).ListDirectory(), ElementsAre("file"));
}

TEST_F(FileHandleBackendImplTest, ListsTwentyThousandEntries) {
    std::vector<std::string> expected;
    makeDirectory(at("d"));
    writeFile(at("first"));
    for (int i = 0; i < 20000; ++i) {
        expected.push_back("entry-" + std::to_string(i));
        test::makeHardLink(at("first"), at("d/") + expected.back());
    }
    std::vector<std::string> names = FileHandleBackendImpl(at("d")).ListDirectory();
    EXPECT_EQ(names, test::namesIn(at("d")));
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
}

// --- other file systems

TEST_F(FileHandleBackendImplTest, MeetsAFullFileSystem) {
    makeDirectory(at("small"));
    writeFile(at("f"), patternlessBytes(1000000));
    test::ChildOutcome const outcome =
        test::onPrivateFileSystem(at("small"), "size=64k,nr_inodes=3", [this] {
            EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("small/copy"))));
            FileHandleBackendImpl const copy(at("small/copy"));
            EXPECT_TRUE(copy.IsFile());
            EXPECT_GT(copy.Size(), 0);
            EXPECT_LE(copy.Size(), 65536);
            EXPECT_TRUE(FileHandleBackendImpl(at("small/last")).CreateDirectory());
            FileHandleBackendImpl directory(at("small/directory"));
            EXPECT_FALSE(directory.CreateDirectory());
            EXPECT_FALSE(directory.Exists());
            EXPECT_TRUE(FileHandleBackendImpl(at("small/x")).CreateOutputStream(NO_MODE)->fail());
            EXPECT_FALSE(
                FileHandleBackendImpl(at("f")).CreateSymbolicLink(FileHandle(at("small/link"))));
        });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

TEST_F(FileHandleBackendImplTest, MeetsAReadOnlyFileSystem) {
    makeDirectory(at("fixed"));
    writeFile(at("f"));
    test::ChildOutcome const outcome = test::onPrivateFileSystem(at("fixed"), "", [this] {
        writeFile(at("fixed/file"), "kept");
        makeDirectory(at("fixed/empty"));
        setPermissions(at("fixed/file"), 0644);
        ASSERT_EQ(mount(nullptr, at("fixed").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        FileHandleBackendImpl file(at("fixed/file"));
        FileHandleBackendImpl empty(at("fixed/empty"));
        EXPECT_TRUE(file.IsFile());
        EXPECT_EQ(file.Size(), 4);
        EXPECT_FALSE(file.Remove());
        EXPECT_FALSE(file.RemoveDirectory());
        EXPECT_FALSE(file.Rename("new"));
        EXPECT_FALSE(file.Move(FileHandle(at("fixed/new"))));
        EXPECT_FALSE(file.Copy(FileHandle(at("fixed/new"))));
        EXPECT_FALSE(file.CreateSymbolicLink(FileHandle(at("fixed/new"))));
        EXPECT_FALSE(empty.RemoveDirectory());
        EXPECT_FALSE(FileHandle(at("fixed")).RemoveDirectoryRecursive());
        EXPECT_FALSE(FileHandleBackendImpl(at("fixed/new")).CreateDirectory());
        EXPECT_TRUE(file.CreateOutputStream(NO_MODE)->fail());
        EXPECT_TRUE(file.CreateInputStream(NO_MODE)->good());
        file.SetPermissions(0777);
        EXPECT_EQ(file.Permissions(), 0644u);
        file.SetUserId(file.UserId() + 1);
        EXPECT_EQ(file.UserId(), statusOf(at("fixed/file")).st_uid);
        EXPECT_TRUE(file.Copy(FileHandle(at("f"))));
        EXPECT_EQ(readFile(at("f")), "kept");
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

}  // namespace
}  // namespace ovra::fs
