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
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include "TemporaryDirectory.h"

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

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

class FileHandleBackendImplTransferTest : public test::TemporaryDirectoryTest {};

// --- move

TEST_F(FileHandleBackendImplTransferTest, MovesIntoADirectoryUnderItsOwnName) {
    writeFile(at("f"), "moved");
    makeDirectory(at("d"));
    FileHandleBackendImpl source(at("f"));
    EXPECT_TRUE(source.Move(FileHandle(at("d"))));
    EXPECT_EQ(readFile(at("d/f")), "moved");
    EXPECT_FALSE(entryExists(at("f")));
    EXPECT_EQ(source.Path(), at("f"));
    EXPECT_FALSE(source.Exists()) << "it still names the old place";
}

TEST_F(FileHandleBackendImplTransferTest, MovesIntoTheDirectoryBehindALink) {
    writeFile(at("f"), "moved");
    makeDirectory(at("d"));
    makeLink("d", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Move(FileHandle(at("link"))));
    EXPECT_EQ(readFile(at("d/f")), "moved");
    EXPECT_EQ(linkContents(at("link")), "d");
}

TEST_F(FileHandleBackendImplTransferTest, MovesOntoAPathThatIsNoDirectory) {
    writeFile(at("f"), "moved");
    writeFile(at("existing"), "replaced");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Move(FileHandle(at("new"))));
    EXPECT_EQ(readFile(at("new")), "moved");
    EXPECT_TRUE(FileHandleBackendImpl(at("new")).Move(FileHandle(at("existing"))));
    EXPECT_EQ(readFile(at("existing")), "moved");
    EXPECT_THAT(test::namesIn(root), ElementsAre("existing"));
}

TEST_F(FileHandleBackendImplTransferTest, MovesOverADanglingLinkAndIntoADirectoryWithThatFile) {
    writeFile(at("f"), "moved");
    makeLink("missing", at("dangling"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Move(FileHandle(at("dangling"))));
    EXPECT_EQ(linkContents(at("dangling")), std::nullopt) << "replaced, not followed";
    EXPECT_EQ(readFile(at("dangling")), "moved");
    makeDirectory(at("d"));
    writeFile(at("d/dangling"), "replaced");
    EXPECT_TRUE(FileHandleBackendImpl(at("dangling")).Move(FileHandle(at("d"))));
    EXPECT_EQ(readFile(at("d/dangling")), "moved");
}

TEST_F(FileHandleBackendImplTransferTest, MovesOntoTheFullPathOfTheTarget) {
    writeFile(at("f"), "moved");
    makeDirectory(at("d"));
    // The stored path ends with a separator, which the system would refuse for a file.
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Move(FileHandle(at("d//new/"))));
    EXPECT_EQ(readFile(at("d/new")), "moved");
}

TEST_F(FileHandleBackendImplTransferTest, MovesByTheLastComponentOfItsPath) {
    makeDirectory(at("d"));
    makeDirectory(at("sub"));
    writeFile(at("sub/file"));
    EXPECT_TRUE(FileHandleBackendImpl(root + "//sub/").Move(FileHandle(at("d/"))));
    EXPECT_TRUE(entryExists(at("d/sub/file")));
}

TEST_F(FileHandleBackendImplTransferTest, MovesLinksThemselves) {
    writeFile(at("target"));
    makeLink(at("target"), at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("link")).Move(FileHandle(at("moved"))));
    EXPECT_EQ(linkContents(at("moved")), at("target"));
    EXPECT_FALSE(entryExists(at("link")));
}

TEST_F(FileHandleBackendImplTransferTest, MovesPipesToo) {
    makePipe(at("pipe"));
    EXPECT_TRUE(FileHandleBackendImpl(at("pipe")).Move(FileHandle(at("moved"))));
    EXPECT_TRUE(S_ISFIFO(modeOf(at("moved"))));
}

TEST_F(FileHandleBackendImplTransferTest, MovesADirectoryOntoAnEmptyOneOnly) {
    makeDirectory(at("sub"));
    writeFile(at("sub/file"));
    makeDirectory(at("empty"));
    makeDirectory(at("empty/sub"));
    makeDirectory(at("full"));
    makeDirectory(at("full/sub"));
    writeFile(at("full/sub/other"));
    FileHandleBackendImpl source(at("sub"));
    EXPECT_FALSE(source.Move(FileHandle(at("full"))));
    EXPECT_TRUE(entryExists(at("sub/file")));
    EXPECT_TRUE(source.Move(FileHandle(at("empty"))));
    EXPECT_TRUE(entryExists(at("empty/sub/file")));
}

TEST_F(FileHandleBackendImplTransferTest, RefusesToMove) {
    writeFile(at("f"));
    makeDirectory(at("d"));
    makeLink("missing", at("dangling"));
    struct Row {
        std::string source;
        std::string target;
    };
    for (Row const& row : std::vector<Row>{{at("missing"), at("new")},
                                           {at("dangling"), at("new")},
                                           {"", at("new")},
                                           {at("f"), at("missing/new")},
                                           {at("f"), ""},
                                           {at("f"), at("f/below")},
                                           {at("d"), at("d")},
                                           {at("d"), at("d/below")},
                                           {at("d"), at("f")}}) {
        FileHandleBackendImpl source(row.source);
        EXPECT_FALSE(source.Move(FileHandle(row.target))) << row.source << " to " << row.target;
        EXPECT_EQ(source.Path(), row.source);
    }
    EXPECT_THAT(test::namesIn(root), UnorderedElementsAre("f", "d", "dangling"));
    EXPECT_THAT(test::namesIn(at("d")), IsEmpty());
}

TEST_F(FileHandleBackendImplTransferTest, MovesNothingOntoAnotherNameOfTheSameFileAndSaysTrue) {
    writeFile(at("f"), "kept");
    test::makeHardLink(at("f"), at("other"));
    FileHandleBackendImpl source(at("f"));
    EXPECT_TRUE(source.Move(FileHandle(at("other"))));
    EXPECT_TRUE(source.Move(FileHandle(at("f"))));
    EXPECT_TRUE(source.Move(FileHandle(root)));
    EXPECT_EQ(readFile(at("f")), "kept");
    EXPECT_EQ(readFile(at("other")), "kept");
}

// --- rename

TEST_F(FileHandleBackendImplTransferTest, RenamesBesideItselfAndFollows) {
    makeDirectory(at("a"));
    writeFile(at("a/f"), "renamed");
    FileHandleBackendImpl backend(at("a/f"));
    EXPECT_TRUE(backend.Rename("g"));
    EXPECT_EQ(backend.Path(), at("a//g"));
    EXPECT_EQ(readFile(at("a/g")), "renamed");
    EXPECT_FALSE(entryExists(at("a/f")));
    EXPECT_TRUE(backend.IsFile());
    EXPECT_TRUE(backend.Rename("h"));
    EXPECT_EQ(backend.Path(), at("a//h")) << "doubled separators do not pile up";
}

TEST_F(FileHandleBackendImplTransferTest, RenamesRelativePathsOfSeveralComponents) {
    makeDirectory(at("a"));
    writeFile(at("a/f"));
    WorkingDirectory const here(root);
    FileHandleBackendImpl backend("a/f");
    EXPECT_TRUE(backend.Rename("g"));
    EXPECT_EQ(backend.Path(), "a//g");
    EXPECT_TRUE(entryExists(at("a/g")));
    FileHandleBackendImpl directory("./a");
    EXPECT_TRUE(directory.Rename("b"));
    EXPECT_EQ(directory.Path(), ".//b");
    EXPECT_TRUE(entryExists(at("b/g")));
}

TEST_F(FileHandleBackendImplTransferTest, RenamesARelativePathOfOneComponentIntoTheRoot) {
    writeFile(at("f"), "renamed");
    WorkingDirectory const here(root);
    FileHandleBackendImpl backend("f");
    // A name that leads from the root back to here.
    ASSERT_EQ(root[0], '/');
    std::string const name = root.substr(1) + "/g";
    EXPECT_TRUE(backend.Rename(name));
    EXPECT_EQ(backend.Path(), root + "/g");
    EXPECT_EQ(readFile(at("g")), "renamed");
}

TEST_F(FileHandleBackendImplTransferTest, TriesTheRootForARelativePathOfOneComponent) {
    OrdinaryUser const ordinary(root);
    writeFile(at("f"));
    WorkingDirectory const here(root);
    FileHandleBackendImpl backend("f");
    EXPECT_FALSE(backend.Rename("ovra-test-entry-that-nobody-may-put-into-the-root"));
    EXPECT_EQ(backend.Path(), "f");
    EXPECT_THAT(test::namesIn(root), ElementsAre("f"));
}

TEST_F(FileHandleBackendImplTransferTest, RenamesThroughTheDirectoriesInTheName) {
    makeDirectory(at("a"));
    makeDirectory(at("a/sub"));
    writeFile(at("a/f"));
    FileHandleBackendImpl backend(at("a/f"));
    EXPECT_TRUE(backend.Rename("sub/g"));
    EXPECT_EQ(backend.Path(), at("a//sub/g"));
    EXPECT_TRUE(entryExists(at("a/sub/g")));
    EXPECT_TRUE(backend.Rename("../../h"));
    EXPECT_EQ(backend.Path(), at("a/sub//../../h"));
    EXPECT_TRUE(entryExists(at("h")));
    EXPECT_FALSE(backend.Rename(""));
    EXPECT_FALSE(backend.Rename(".."));
    EXPECT_EQ(backend.Path(), at("a/sub//../../h"));
}

TEST_F(FileHandleBackendImplTransferTest, RenamesOntoAnExistingFile) {
    writeFile(at("f"), "renamed");
    writeFile(at("g"), "replaced");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Rename("g"));
    EXPECT_EQ(readFile(at("g")), "renamed");
    EXPECT_THAT(test::namesIn(root), ElementsAre("g"));
}

TEST_F(FileHandleBackendImplTransferTest, DropsASeparatorAtTheEndWhenItRenames) {
    makeDirectory(at("d"));
    FileHandleBackendImpl backend(at("d/"));
    EXPECT_TRUE(backend.Rename("e"));
    EXPECT_EQ(backend.Path(), root + "//e");
    EXPECT_TRUE(entryExists(at("e")));
}

TEST_F(FileHandleBackendImplTransferTest, KeepsItsPathWhenItCannotRename) {
    writeFile(at("f"));
    makeDirectory(at("d"));
    makeLink("missing", at("dangling"));
    for (std::string const name : {"missing", "dangling"}) {
        FileHandleBackendImpl backend(at(name));
        EXPECT_FALSE(backend.Rename("new")) << name;
        EXPECT_EQ(backend.Path(), at(name));
    }
    for (std::string const name : {"d", "missing/g", "f/g"}) {
        FileHandleBackendImpl backend(at("f"));
        EXPECT_FALSE(backend.Rename(name)) << name;
        EXPECT_EQ(backend.Path(), at("f"));
        EXPECT_TRUE(backend.Exists());
    }
}

// --- links

TEST_F(FileHandleBackendImplTransferTest, LinksToItsPathAsStored) {
    makeDirectory(at("sub"));
    writeFile(at("sub/f"), "linked");
    std::string const stored = root + "//sub/./f";
    FileHandleBackendImpl source(stored);
    EXPECT_TRUE(source.CreateSymbolicLink(FileHandle(at("link"))));
    EXPECT_EQ(linkContents(at("link")), stored);
    EXPECT_EQ(readFile(at("link")), "linked");
    EXPECT_EQ(source.Path(), stored);
}

TEST_F(FileHandleBackendImplTransferTest, PlacesTheLinkInsideADirectory) {
    writeFile(at("f"));
    makeDirectory(at("d"));
    makeDirectory(at("e"));
    makeLink("e", at("link-to-e"));
    FileHandleBackendImpl source(at("f"));
    EXPECT_TRUE(source.CreateSymbolicLink(FileHandle(at("d"))));
    EXPECT_EQ(linkContents(at("d/f")), at("f"));
    EXPECT_TRUE(source.CreateSymbolicLink(FileHandle(at("link-to-e/"))));
    EXPECT_EQ(linkContents(at("e/f")), at("f"));
}

TEST_F(FileHandleBackendImplTransferTest, LinksToDirectoriesAndLinks) {
    makeDirectory(at("d"));
    writeFile(at("f"));
    makeLink("f", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("d")).CreateSymbolicLink(FileHandle(at("to-d"))));
    EXPECT_EQ(linkContents(at("to-d")), at("d"));
    EXPECT_TRUE(FileHandleBackendImpl(at("link")).CreateSymbolicLink(FileHandle(at("to-link"))));
    EXPECT_EQ(linkContents(at("to-link")), at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("d/")).CreateSymbolicLink(FileHandle(at("to-d"))))
        << "the link to the directory counts as the directory";
    EXPECT_EQ(linkContents(at("d/d")), at("d/"));
}

TEST_F(FileHandleBackendImplTransferTest, MakesARelativeLinkFromARelativePath) {
    writeFile(at("f"));
    makeDirectory(at("d"));
    WorkingDirectory const here(root);
    FileHandleBackendImpl source("f");
    EXPECT_TRUE(source.CreateSymbolicLink(FileHandle("d")));
    EXPECT_EQ(linkContents(at("d/f")), "f");
    EXPECT_FALSE(FileHandle("d/f").Exists()) << "it points at itself";
    EXPECT_TRUE(source.CreateSymbolicLink(FileHandle("beside")));
    EXPECT_TRUE(FileHandle("beside").IsFile());
}

TEST_F(FileHandleBackendImplTransferTest, PlacesTheLinkAtTheStoredPathOfTheTarget) {
    writeFile(at("f"));
    // The system refuses a link whose name ends with a separator; the full path would not end so.
    EXPECT_FALSE(FileHandleBackendImpl(at("f")).CreateSymbolicLink(FileHandle(at("new/"))));
    EXPECT_FALSE(entryExists(at("new")));
    // A drive's full path ends with a separator; the stored one does not.
    WorkingDirectory const here(root);
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).CreateSymbolicLink(FileHandle("C:")));
    EXPECT_EQ(linkContents(at("C:")), at("f"));
}

TEST_F(FileHandleBackendImplTransferTest, RefusesToLink) {
    writeFile(at("f"));
    writeFile(at("taken"), "kept");
    makeLink("missing", at("dangling"));
    makeDirectory(at("d"));
    writeFile(at("d/f"), "kept");
    struct Row {
        std::string source;
        std::string target;
    };
    for (Row const& row : std::vector<Row>{{at("missing"), at("new")},
                                           {at("dangling"), at("new")},
                                           {"", at("new")},
                                           {at("f"), at("taken")},
                                           {at("f"), at("dangling")},
                                           {at("f"), at("d")},
                                           {at("f"), at("f")},
                                           {at("f"), at("missing/new")},
                                           {at("f"), ""}}) {
        EXPECT_FALSE(FileHandleBackendImpl(row.source).CreateSymbolicLink(FileHandle(row.target)))
            << row.source << " at " << row.target;
    }
    EXPECT_EQ(readFile(at("taken")), "kept");
    EXPECT_EQ(readFile(at("d/f")), "kept");
    EXPECT_EQ(linkContents(at("dangling")), "missing");
    EXPECT_FALSE(entryExists(at("new")));
}

// --- copy

TEST_F(FileHandleBackendImplTransferTest, CopiesEveryByteOfFilesOfAnySize) {
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

TEST_F(FileHandleBackendImplTransferTest, CopiesAFileWhoseSizeIsNotKnown) {
    std::string const source = "/proc/self/cmdline";
    if (statusOf(source).st_size != 0) {
        GTEST_SKIP() << source << " has a size";
    }
    EXPECT_TRUE(FileHandleBackendImpl(source).Copy(FileHandle(at("copy"))));
    EXPECT_EQ(readFile(at("copy")), readFile(source));
    EXPECT_NE(readFile(at("copy")), "");
}

TEST_F(FileHandleBackendImplTransferTest, CopiesIntoADirectoryUnderItsOwnName) {
    writeFile(at("f"), "copied");
    makeDirectory(at("d"));
    makeLink("d", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("d"))));
    EXPECT_EQ(readFile(at("d/f")), "copied");
    writeFile(at("f"), "copied again");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("link/"))));
    EXPECT_EQ(readFile(at("d/f")), "copied again");
}

TEST_F(FileHandleBackendImplTransferTest, CopiesOntoTheFullPathOfTheTarget) {
    writeFile(at("f"), "copied");
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(root + "//new/")));
    EXPECT_EQ(readFile(at("new")), "copied");
}

TEST_F(FileHandleBackendImplTransferTest, CopiesTheTargetOfALink) {
    writeFile(at("f"), "copied");
    makeLink("f", at("link"));
    EXPECT_TRUE(FileHandleBackendImpl(at("link")).Copy(FileHandle(at("new"))));
    EXPECT_EQ(modeOf(at("new")) & S_IFMT, mode_t{S_IFREG});
    EXPECT_EQ(readFile(at("new")), "copied");
}

TEST_F(FileHandleBackendImplTransferTest, CopiesThroughALinkAtTheTarget) {
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

TEST_F(FileHandleBackendImplTransferTest, CarriesNothingOverButTheBytes) {
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

TEST_F(FileHandleBackendImplTransferTest, GivesTheCopyToTheCopyingProcess) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "only the superuser may give a file away";
    }
    writeFile(at("f"));
    ASSERT_EQ(chown(at("f").c_str(), 11, 22), 0);
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("new"))));
    EXPECT_EQ(statusOf(at("new")).st_uid, geteuid());
    EXPECT_EQ(statusOf(at("new")).st_gid, getegid());
}

TEST_F(FileHandleBackendImplTransferTest, OverwritesAnExistingFileInPlace) {
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

TEST_F(FileHandleBackendImplTransferTest, EmptiesAFileCopiedOntoItselfAndSaysTrue) {
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

TEST_F(FileHandleBackendImplTransferTest, CopiesNothingButRegularFiles) {
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

TEST_F(FileHandleBackendImplTransferTest, RefusesToCopyToWhereNoFileCanBe) {
    writeFile(at("f"), "kept");
    makeDirectory(at("d"));
    makeDirectory(at("d/f"));
    for (std::string const& target : {at("missing/new"), at("d"), at("f/below"), std::string()}) {
        EXPECT_FALSE(FileHandleBackendImpl(at("f")).Copy(FileHandle(target))) << target;
    }
    EXPECT_EQ(readFile(at("f")), "kept");
}

TEST_F(FileHandleBackendImplTransferTest, EmptiesTheTargetOfACopyWhoseSourceCannotBeRead) {
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

TEST_F(FileHandleBackendImplTransferTest, OpensTheSourceOfACopyFirst) {
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

TEST_F(FileHandleBackendImplTransferTest, SaysTrueWhenTheBytesOfACopyDoNotArrive) {
    makeLink("/dev/full", at("full"));
    // The first is still in the buffer when the stream is closed.
    for (std::size_t const size : {100u, 100000u}) {
        writeFile(at("f"), patternlessBytes(size));
        EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("full")))) << size;
    }
}

TEST_F(FileHandleBackendImplTransferTest, CopiesIntoANamedPipe) {
    std::string const contents = patternlessBytes(200000);
    writeFile(at("f"), contents);
    makePipe(at("pipe"));
    std::optional<std::string> received;
    std::thread reader([this, &received] { received = readFile(at("pipe")); });
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle(at("pipe"))));
    reader.join();
    EXPECT_EQ(received == contents, true);
}

TEST_F(FileHandleBackendImplTransferTest, TakesALastComponentThatLooksLikeADriveForARoot) {
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

TEST_F(FileHandleBackendImplTransferTest, MovesOntoTheTargetDirectoryWhenItsOwnNameIsEmpty) {
    makeDirectory(at("sub"));
    writeFile(at("sub/file"));
    makeDirectory(at("d"));
    EXPECT_TRUE(FileHandleBackendImpl(at("sub//")).Move(FileHandle(at("d"))));
    EXPECT_TRUE(FileHandle(at("d/file")).IsFile());
    EXPECT_FALSE(FileHandle(at("sub")).Exists());
}

TEST_F(FileHandleBackendImplTransferTest, CopiesFromAFileOfTheLargestSize) {
    writeFile(at("f"));
    if (::truncate64(at("f").c_str(), std::numeric_limits<std::int64_t>::max()) != 0) {
        GTEST_SKIP() << "this file system holds no file of that size";
    }
    EXPECT_TRUE(FileHandleBackendImpl(at("f")).Copy(FileHandle("/dev/full")));
}

TEST_F(FileHandleBackendImplTransferTest, MovesNothingAcrossFileSystems) {
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
