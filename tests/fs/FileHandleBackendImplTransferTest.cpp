#include <ovra/fs/FileHandleBackendImpl.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/TemporaryDirectory.h>

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
using test::modeOf;
using test::OrdinaryUser;
using test::readFile;
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
    WorkingDirectory const here(root);  // The way back may be one for root only.
    OrdinaryUser const ordinary(root);
    writeFile(at("f"));
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

}  // namespace
}  // namespace ovra::fs
