#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

using test::entryExists;
using test::isSuperuser;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::makeSocket;
using test::OrdinaryUser;
using test::patternlessBytes;
using test::permissionsOf;
using test::readFile;
using test::setModificationTime;
using test::setPermissions;
using test::statusOf;
using test::writeFile;

static_assert(std::is_base_of_v<FileHandleBackend, FileHandleBackendImpl>);
static_assert(std::is_constructible_v<FileHandleBackendImpl, std::string const&>);
static_assert(!std::is_copy_constructible_v<FileHandleBackendImpl>);
static_assert(!std::is_copy_assignable_v<FileHandleBackendImpl>);
static_assert(!std::is_polymorphic_v<FilePath>);
static_assert(std::is_same_v<decltype(&FileHandleBackendImpl::ReadFileStatus),
                             void (FileHandleBackendImpl::*)() const>);

class FileHandleBackendImplTest : public test::TemporaryDirectoryTest {};

// --- status

TEST_F(FileHandleBackendImplTest, DistinguishesKinds) {
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
