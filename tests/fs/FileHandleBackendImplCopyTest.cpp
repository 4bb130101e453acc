#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs {
namespace {

using ::testing::IsEmpty;

using test::entryExists;
using test::isSuperuser;
using test::linkContents;
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
using test::WorkingDirectory;
using test::writeFile;

class FileHandleBackendImplCopyTest : public test::TemporaryDirectoryTest {};

TEST_F(FileHandleBackendImplCopyTest, CopiesEveryByteOfFilesOfAnySize) {
    for (std::size_t const size : {0u, 1u, 2u, 1023u, 1024u, 4094u, 4095u, 4096u, 4097u, 8191u,
                                   8192u, 65534u, 65535u, 65536u, 65537u, 131072u, 1000003u}) {
        std::string const contents = patternlessBytes(size);
        writeFile(at("f"), contents);
        FileHandleBackendImpl source(at("f"));
        EXPECT_TRUE(source.Copy(FileHandle(at("copy")))) << size;
        EXPECT_EQ(readFile(at("copy")) == contents, true) << size;
        EXPECT_EQ(readFile(at("f")) == contents, true) << size;
        EXPECT_EQ(source.Path(), at("f"));
    }
}

TEST_F(FileHandleBackendImplCopyTest, CopiesAFileWhoseSizeIsNotKnown) {
    std::string const source = "/proc/self/cmdline";
    if (statusOf(source).st_size != 0) {
        GTEST_SKIP() << source << " has a size";
    }
    EXPECT_TRUE(FileHandleBackendImpl(source).Copy(FileHandle(at("copy"))));
    EXPECT_EQ(readFile(at("copy")), readFile(source));
    EXPECT_NE(readFile(at("copy")), "");
}

TEST_F(FileHandleBackendImplCopyTest, CopiesIntoADirectoryUnderItsOwnName) {
    writeFile(at("f"), "copied");
    makeDirectory(at("d"));
    makeLink("d", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("d"))));
    EXPECT_EQ(readFile(at("d/f")), "copied");
    writeFile(at("f"), "copied again");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("link/"))));
    EXPECT_EQ(readFile(at("d/f")), "copied again");
}

TEST_F(FileHandleBackendImplCopyTest, CopiesOntoTheFullPathOfTheTarget) {
    writeFile(at("f"), "copied");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(root + "//new/")));
    EXPECT_EQ(readFile(at("new")), "copied");
}

TEST_F(FileHandleBackendImplCopyTest, CopiesTheTargetOfALink) {
    writeFile(at("f"), "copied");
    makeLink("f", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("link")).Copy(FileHandle(at("new"))));
    EXPECT_EQ(modeOf(at("new")) & S_IFMT, mode_t{S_IFREG});
    EXPECT_EQ(readFile(at("new")), "copied");
}

TEST_F(FileHandleBackendImplCopyTest, CopiesThroughALinkAtTheTarget) {
    writeFile(at("f"), "copied");
    writeFile(at("existing"), "overwritten");
    makeLink("existing", at("link"));
    makeLink("missing", at("dangling"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("link"))));
    EXPECT_EQ(readFile(at("existing")), "copied");
    EXPECT_EQ(linkContents(at("link")), "existing");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("dangling"))));
    EXPECT_EQ(readFile(at("missing")), "copied");
}

TEST_F(FileHandleBackendImplCopyTest, CarriesNothingOverButTheBytes) {
    writeFile(at("f"), "copied");
    setPermissions(at("f"), 04711);
    setModificationTime(at("f"), 1000000000);
    std::time_t const before = std::time(nullptr);
    mode_t const previous = umask(027);
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
    umask(previous);
    EXPECT_EQ(permissionsOf(at("new")), 0640u);
    // The clock of the file system may lag by a tick.
    EXPECT_GE(statusOf(at("new")).st_mtim.tv_sec, before - 1);
    EXPECT_EQ(statusOf(at("new")).st_uid, geteuid());
}

TEST_F(FileHandleBackendImplCopyTest, GivesTheCopyToTheCopyingProcess) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "only the superuser may give a file away";
    }
    writeFile(at("f"));
    ASSERT_EQ(chown(at("f").c_str(), 11, 22), 0);
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
    EXPECT_EQ(statusOf(at("new")).st_uid, geteuid());
    EXPECT_EQ(statusOf(at("new")).st_gid, getegid());
}

TEST_F(FileHandleBackendImplCopyTest, OverwritesAnExistingFileInPlace) {
    writeFile(at("f"), "short");
    writeFile(at("existing"), "longer than the source");
    setPermissions(at("existing"), 0606);
    if (isSuperuser()) {
        ASSERT_EQ(chown(at("existing").c_str(), 11, 22), 0);
    }
    struct stat const before = statusOf(at("existing"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("existing"))));
    struct stat const after = statusOf(at("existing"));
    EXPECT_EQ(readFile(at("existing")), "short");
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(FileHandleBackendImplCopyTest, EmptiesAFileCopiedOntoItselfAndSaysTrue) {
    makeDirectory(at("d"));
    makeLink("d/f", at("link"));
    for (std::string const& target : {at("d/f"), at("d"), at("link"), at("d/../d//f")}) {
        writeFile(at("d/f"), patternlessBytes(100000));
        EXPECT_TRUE(FileHandleBackendImpl(at("d/f")).Copy(FileHandle(target))) << target;
        EXPECT_EQ(readFile(at("d/f")), "") << target;
    }
    writeFile(at("d/f"), patternlessBytes(100000));
    test::makeHardLink(at("d/f"), at("hard"));
    EXPECT_TRUE(FileHandleBackendImpl(at("d/f")).Copy(FileHandle(at("hard"))));
    EXPECT_EQ(readFile(at("d/f")), "");
}

TEST_F(FileHandleBackendImplCopyTest, CopiesNothingButRegularFiles) {
    makeDirectory(at("directory"));
    writeFile(at("directory/file"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("directory", at("link-to-directory"));
    makeLink("missing", at("dangling"));
    for (std::string const& path :
         {at("directory"), at("pipe"), at("socket"), at("link-to-directory"), at("dangling"),
          at("missing"), std::string("/dev/null"), std::string()}) {
        EXPECT_FALSE(FileHandleBackendImpl(path).Copy(FileHandle(at("new")))) << path;
        EXPECT_FALSE(entryExists(at("new"))) << path;
    }
}

TEST_F(FileHandleBackendImplCopyTest, RefusesToCopyToWhereNoFileCanBe) {
    writeFile(at("f"), "kept");
    makeDirectory(at("d"));
    makeDirectory(at("d/f"));
    for (std::string const& target : {at("missing/new"), at("d"), at("f/below"), std::string()}) {
        EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(target))) << target;
    }
    EXPECT_EQ(readFile(at("f")), "kept");
}

TEST_F(FileHandleBackendImplCopyTest, EmptiesTheTargetOfACopyWhoseSourceCannotBeRead) {
    OrdinaryUser const ordinary(root);
    writeFile(at("f"));
    setPermissions(at("f"), 0200);
    writeFile(at("existing"), "lost");
    EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("existing"))));
    EXPECT_EQ(readFile(at("existing")), "");
    EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
    EXPECT_EQ(readFile(at("new")), "");
    setPermissions(at("f"), 0600);
    setPermissions(at("existing"), 0400);
    EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("existing"))));
}

TEST_F(FileHandleBackendImplCopyTest, OpensTheSourceOfACopyFirst) {
    writeFile(at("f"));
    // Before as well: a sanitizer opens descriptors of its own for types that it has not seen.
    ASSERT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("unlimited"))));
    {
        test::DescriptorLimit const one(1);
        EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
    }
    EXPECT_FALSE(entryExists(at("new"))) << "the source took the only descriptor";
    test::DescriptorLimit const two(2);
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
}

TEST_F(FileHandleBackendImplCopyTest, SaysTrueWhenTheBytesOfACopyDoNotArrive) {
    makeLink("/dev/full", at("full"));
    // The first is still in the buffer when the stream is closed.
    for (std::size_t const size : {100u, 100000u}) {
        writeFile(at("f"), patternlessBytes(size));
        EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("full")))) << size;
    }
}

TEST_F(FileHandleBackendImplCopyTest, CopiesIntoANamedPipe) {
    std::string const contents = patternlessBytes(200000);
    writeFile(at("f"), contents);
    makePipe(at("pipe"));
    std::optional<std::string> received;
    std::thread reader([this, &received] { received = readFile(at("pipe")); });
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("pipe"))));
    reader.join();
    EXPECT_EQ(received == contents, true);
}

TEST_F(FileHandleBackendImplCopyTest, TakesALastComponentThatLooksLikeADriveForARoot) {
    makeDirectory(at("a"));
    makeDirectory(at("a/C:"));
    makeDirectory(at("b"));
    writeFile(at("a/D:"));
    WorkingDirectory const here(root);
    EXPECT_TRUE(FileHandleBackendImpl(at("a/C:")).Move(FileHandle(at("b"))));
    EXPECT_TRUE(FileHandle(at("C:")).IsDirectory());
    EXPECT_THAT(test::namesIn(at("b")), IsEmpty());
    EXPECT_FALSE(FileHandleBackendImpl(at("a/D:")).Move(FileHandle(at("b"))));
    EXPECT_FALSE(FileHandleBackendImpl(at("a/D:")).Copy(FileHandle(at("b"))));
    EXPECT_FALSE(FileHandleBackendImpl(at("a/D:")).CreateSymbolicLink(FileHandle(at("b"))));
}

TEST_F(FileHandleBackendImplCopyTest, MovesOntoTheTargetDirectoryWhenItsOwnNameIsEmpty) {
    makeDirectory(at("sub"));
    writeFile(at("sub/file"));
    makeDirectory(at("d"));
    EXPECT_TRUE(FileHandleBackendImpl(at("sub//")).Move(FileHandle(at("d"))));
    EXPECT_TRUE(FileHandle(at("d/file")).IsFile());
    EXPECT_FALSE(FileHandle(at("sub")).Exists());
}

TEST_F(FileHandleBackendImplCopyTest, CopiesFromAFileOfTheLargestSize) {
    writeFile(at("f"));
    if (::truncate64(at("f").c_str(), std::numeric_limits<std::int64_t>::max()) != 0) {
        GTEST_SKIP() << "this file system holds no file of that size";
    }
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle("/dev/full")));
}

TEST_F(FileHandleBackendImplCopyTest, MovesNothingAcrossFileSystems) {
    makeDirectory(at("other"));
    writeFile(at("f"), "kept");
    test::ChildOutcome const outcome = test::onPrivateFileSystem(at("other"), "", [this] {
        FileHandleBackendImpl source(at("f"));
        EXPECT_FALSE(source.Move(FileHandle(at("other"))));
        EXPECT_FALSE(source.Move(FileHandle(at("other/new"))));
        EXPECT_FALSE(source.Rename("other/new"));
        EXPECT_EQ(source.Path(), at("f"));
        EXPECT_EQ(readFile(at("f")), "kept");
        EXPECT_THAT(test::namesIn(at("other")), IsEmpty());
        EXPECT_TRUE(source.Copy(FileHandle(at("other"))));
        EXPECT_EQ(readFile(at("other/f")), "kept");
        EXPECT_TRUE(source.CreateSymbolicLink(FileHandle(at("other/link"))));
        EXPECT_EQ(readFile(at("other/link")), "kept");
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

}  // namespace
}  // namespace ovra::fs
