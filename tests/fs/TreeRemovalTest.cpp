#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/SystemCallTest.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using test::Calls;
using test::entryExists;
using test::makeDirectory;
using test::makeLink;
using test::makePipe;
using test::namesIn;
using test::openDescriptors;
using test::readFile;
using test::SystemCalls;
using test::SystemCallTest;
using test::withoutReading;
using test::WorkingDirectory;
using test::writeFile;

/// The calls of a recursive removal, and what becomes of entries that change meanwhile.
class TreeRemovalTest : public SystemCallTest {};

TEST_F(TreeRemovalTest, TouchesNothingBeforeARecursiveRemovalOfWhatIsNoDirectory) {
    SystemCalls calls(root);
    EXPECT_FALSE(FileHandle(at("f")).RemoveDirectoryRecursive());
    EXPECT_THAT(calls.take(), ElementsAre("lstat f"));
    EXPECT_FALSE(FileHandle(at("dangling")).RemoveDirectoryRecursive());
    EXPECT_THAT(calls.take(), ElementsAre("lstat dangling", "stat dangling"));
}

TEST_F(TreeRemovalTest, RemovesATreeFromItsLeavesUpWithOneQueryForEachEntry) {
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/file"));
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    // A directory is looked at once more before it goes.
    EXPECT_THAT(withoutReading(calls.take()),
                ElementsAre("lstat d", "stat d", "opendir d", "fstatat d/sub", "opendir d/sub",
                            "fstatat d/sub/file", "unlinkat d/sub/file", "closedir", "lstat d/sub",
                            "remove d/sub", "closedir", "lstat d", "remove d"));
}

TEST_F(TreeRemovalTest, GoesOnReadingADirectoryWhileItRemovesItsEntries) {
    writeFile(at("d/a"));
    writeFile(at("d/b"));
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    Calls names;
    for (std::string const& call : calls.take()) {
        std::string const name = call.substr(0, call.find(' '));
        bool const repeated = name == "readdir" && !names.empty() && names.back() == name;
        if ((name == "readdir" && !repeated) || name == "unlinkat" || name == "remove") {
            names.push_back(name);
        }
    }
    EXPECT_THAT(names,
                ElementsAre("readdir", "unlinkat", "readdir", "unlinkat", "readdir", "remove"));
}

TEST_F(TreeRemovalTest, DescendsOnceIntoADirectoryThatLinksBelowItLeadBackTo) {
    for (std::string const name : {"d/one", "d/two", "d/three"}) {
        makeLink(at("d"), at(name));
    }
    makeDirectory(at("d/sub"));
    makeLink("..", at("d/sub/up"));
    SystemCalls calls(root);
    // As in a tree where nothing may be removed.
    calls.intercept = [](std::string const& call) {
        return call.compare(0, 6, "remove") == 0 ? EROFS : 0;
    };
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_EQ(calls.count("opendir"), 2) << "the directory itself and the one below it";
    EXPECT_EQ(calls.count("closedir"), 2);
    Calls removals;
    for (std::string const& call : calls.take()) {
        if (call.compare(0, 6, "remove") == 0) {
            removals.push_back(call);
        }
    }
    EXPECT_THAT(removals, UnorderedElementsAre("remove d/one", "remove d/two", "remove d/three",
                                               "remove d/sub/up", "remove d/sub", "remove d"))
        << "each link is tried all the same";
}

TEST_F(TreeRemovalTest, DescendsAgainIntoADirectoryThatIsNoLongerOpen) {
    makeDirectory(at("outside"));
    makeLink(at("outside"), at("d/one"));
    makeLink(at("outside"), at("d/two"));
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_EQ(calls.count("opendir"), 3);
}

TEST_F(TreeRemovalTest, RemovesATreeWhoseRootCannotBeRecognised) {
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/file"));
    SystemCalls calls(root);
    calls.intercept = [](std::string const& call) { return call == "stat d" ? EIO : 0; };
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_FALSE(entryExists(at("d")));
}

TEST_F(TreeRemovalTest, GoesOnWhenAnEntryVanishesMeanwhile) {
    writeFile(at("d/a"));
    writeFile(at("d/b"));
    makeDirectory(at("d/sub"));
    SystemCalls calls(root);
    calls.intercept = [this](std::string const& call) {
        if (call == "fstatat d/a") {
            unlink(at("d/a").c_str());
        }
        if (call == "unlinkat d/b") {
            unlink(at("d/b").c_str());
        }
        if (call == "opendir d/sub") {
            rmdir(at("d/sub").c_str());
        }
        return 0;
    };
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_FALSE(entryExists(at("d")));
}

TEST_F(TreeRemovalTest, GoesOnWhenAnEntryCannotBeRemoved) {
    makeDirectory(at("d/sub"));
    for (char const* const name : {"d/a", "d/b", "d/c", "d/sub/a", "d/sub/b"}) {
        writeFile(at(name));
    }
    SystemCalls calls(root);
    calls.intercept = [](std::string const& call) {
        return call == "unlinkat d/b" || call == "unlinkat d/sub/a" ? EPERM : 0;
    };
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_THAT(namesIn(at("d")), UnorderedElementsAre("b", "sub"));
    EXPECT_THAT(namesIn(at("d/sub")), ElementsAre("a"));
}

TEST_F(TreeRemovalTest, ClosesEachDirectoryBeforeItRemovesIt) {
    makeDirectory(at("d/sub"));
    std::size_t const before = openDescriptors().size();
    std::vector<std::size_t> openAtRemoval;
    SystemCalls calls(root);
    calls.intercept = [&](std::string const& call) {
        if (call.compare(0, 6, "remove") == 0) {
            openAtRemoval.push_back(openDescriptors().size() - before);
        }
        return 0;
    };
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_THAT(openAtRemoval, ElementsAre(1, 0)) << "of \"d/sub\" and of \"d\"";
}

TEST_F(TreeRemovalTest, DoesNotTrustTheTypeThatAnEntryIsReadWith) {
    for (unsigned char const type : {DT_UNKNOWN, DT_REG, DT_DIR, DT_LNK, DT_FIFO, DT_SOCK}) {
        makeDirectory(at("outside"));
        writeFile(at("outside/file"));
        makeDirectory(at("d/sub"));
        writeFile(at("d/sub/file"));
        writeFile(at("d/file"));
        makeLink("../f", at("d/link-to-file"));
        makeLink("../outside", at("d/link-to-directory"));
        makePipe(at("d/pipe"));
        SystemCalls calls(root);
        calls.entryType = type;
        EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
        EXPECT_THAT(namesIn(at("d")), ElementsAre("pipe")) << static_cast<int>(type);
        EXPECT_THAT(namesIn(at("outside")), IsEmpty()) << static_cast<int>(type);
        EXPECT_TRUE(entryExists(at("f"))) << static_cast<int>(type);
        unlink(at("d/pipe").c_str());
        rmdir(at("outside").c_str());
    }
}

// --- entries that are swapped meanwhile

TEST_F(TreeRemovalTest, TakesAnEntryForWhatItIsWhenItIsAskedFor) {
    makeDirectory(at("outside"));
    struct Row {
        char const* name;
        std::function<void(std::string const&)> put;
        bool removed;
    };
    for (Row const& row : std::vector<Row>{
             {"a directory", [](auto const& path) { makeDirectory(path); }, true},
             {"a link to a file", [this](auto const& path) { makeLink(at("f"), path); }, true},
             {"a link to a directory", [this](auto const& path) { makeLink(at("outside"), path); },
              true},
             {"a link to nothing", [](auto const& path) { makeLink("missing", path); }, false},
             {"a pipe", [](auto const& path) { makePipe(path); }, false},
             {"nothing", [](auto const&) {}, true}}) {
        makeDirectory(at("tree"));
        writeFile(at("tree/entry"));
        writeFile(at("outside/file"));
        SystemCalls calls(root);
        // The directory has been read by then, with a file in it.
        calls.intercept = [&](std::string const& call) {
            if (call == "fstatat tree/entry") {
                unlink(at("tree/entry").c_str());
                row.put(at("tree/entry"));
            }
            return 0;
        };
        EXPECT_EQ(FileHandle(at("tree")).RemoveDirectoryRecursive(), row.removed) << row.name;
        EXPECT_EQ(entryExists(at("tree/entry")), !row.removed) << row.name;
        bool const isFollowed = row.name == std::string("a link to a directory");
        EXPECT_EQ(entryExists(at("outside/file")), !isFollowed) << row.name;
        EXPECT_EQ(readFile(at("f")), "contents") << row.name;
        unlink(at("tree/entry").c_str());
        rmdir(at("tree").c_str());
    }
}

TEST_F(TreeRemovalTest, RemovesWhatTakesThePlaceOfAFileAtTheLastMomentButNoDirectory) {
    makeDirectory(at("outside"));
    writeFile(at("outside/file"));
    for (bool const isLink : {true, false}) {
        makeDirectory(at("tree"));
        writeFile(at("tree/entry"));
        SystemCalls calls(root);
        calls.intercept = [&](std::string const& call) {
            if (call == "unlinkat tree/entry") {
                unlink(at("tree/entry").c_str());
                if (isLink) {
                    makeLink(at("outside"), at("tree/entry"));
                } else {
                    makeDirectory(at("tree/entry"));
                }
            }
            return 0;
        };
        EXPECT_EQ(FileHandle(at("tree")).RemoveDirectoryRecursive(), isLink);
        EXPECT_EQ(entryExists(at("tree/entry")), !isLink);
    }
    EXPECT_TRUE(entryExists(at("outside/file"))) << "it has been taken for a file";
}

TEST_F(TreeRemovalTest, KeepsALinkThatTakesThePlaceOfADirectoryAndDangles) {
    makeDirectory(at("d/sub"));
    SystemCalls calls(root);
    calls.intercept = [this](std::string const& call) {
        if (call == "opendir d/sub") {
            rmdir(at("d/sub").c_str());
            makeLink("missing", at("d/sub"));
        }
        return 0;
    };
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_THAT(namesIn(at("d")), ElementsAre("sub"));
}

TEST_F(TreeRemovalTest, RemovesWhatTakesThePlaceOfADirectoryAndCanBeSeen) {
    makeDirectory(at("d/sub"));
    SystemCalls calls(root);
    calls.intercept = [this](std::string const& call) {
        if (call == "opendir d/sub") {
            rmdir(at("d/sub").c_str());
            writeFile(at("d/sub"));
        }
        return 0;
    };
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_FALSE(entryExists(at("d")));
}

TEST_F(TreeRemovalTest, StaysInTheDirectoryThatItReadsWhenThatIsMoved) {
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/file"), "removed");
    makeDirectory(at("bystander"));
    writeFile(at("bystander/file"), "kept");
    SystemCalls calls(root);
    calls.intercept = [this](std::string const& call) {
        if (call == "fstatat d/sub/file") {
            EXPECT_EQ(rename(at("d/sub").c_str(), at("moved").c_str()), 0);
            makeLink("../bystander", at("d/sub"));
        }
        return 0;
    };
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_EQ(readFile(at("bystander/file")), "kept");
    EXPECT_THAT(namesIn(at("moved")), IsEmpty());
}

// --- limits

TEST_F(TreeRemovalTest, KeepsAFileThatNoPathIsLongEnoughFor) {
    WorkingDirectory const here(root);
    std::string path = "d";
    while (path.size() + 201 < PATH_MAX - 50) {
        path += "/" + std::string(200, 'n');
        makeDirectory(path);
    }
    auto const nameFor = [&](std::size_t pathSize) {
        return std::string(pathSize - path.size() - 1, 'f');
    };
    std::string const longest = nameFor(PATH_MAX - 1);
    std::string const tooLong = nameFor(PATH_MAX);
    {
        WorkingDirectory const inside(path);
        writeFile(longest);
        writeFile(tooLong);
    }
    EXPECT_FALSE(FileHandle("d").RemoveDirectoryRecursive());
    EXPECT_THAT(namesIn(path), ElementsAre(tooLong));
    WorkingDirectory const inside(path);
    unlink(tooLong.c_str());
}

TEST_F(TreeRemovalTest, RemovesTheFilesOfALevelWhoseDirectoriesFindNoDescriptor) {
    makeDirectory(at("d/sub"));
    writeFile(at("d/sub/file"));
    writeFile(at("d/file"));
    makeDirectory(at("d/empty"));
    SystemCalls calls(root);
    calls.intercept = [](std::string const& call) {
        return call == "opendir d/sub" || call == "opendir d/empty" ? EMFILE : 0;
    };
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
    calls.intercept = nullptr;
    EXPECT_THAT(namesIn(at("d")), ElementsAre("sub")) << "an empty one need not be read";
    EXPECT_THAT(namesIn(at("d/sub")), ElementsAre("file"));
}

}  // namespace
}  // namespace ovra::fs
