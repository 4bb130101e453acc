// RemoveDirectoryRecursive() does not descend again into a directory that it is emptying already.
// On small random trees, what it leaves is compared with what the plain steps leave, which descend
// into every link.
//
// Neither always leaves less. A link that comes to dangle while the tree is removed stays, and so
// does a directory that is not yet empty when its turn comes; which ones do depends on what is
// emptied first, and where a link leads back up, the two differ in that order. Links that dangle
// and directories are all that the guard leaves and the plain steps remove.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/RandomSource.h>

namespace ovra::fs {
namespace {

using ovra::test::RandomSource;

// --- the steps without the guard, on the system's own calls

bool exists(std::string const& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0;
}

bool isDirectory(std::string const& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool isFile(std::string const& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool removeByTheSteps(std::string const& path) {
    if (!isDirectory(path)) {
        return false;
    }
    if (DIR* const directory = opendir(path.c_str())) {
        while (dirent const* const entry = readdir(directory)) {
            std::string const name = entry->d_name;
            std::string const child = path + "/" + name;
            if (name == "." || name == "..") {
                continue;
            }
            if (isDirectory(child)) {
                removeByTheSteps(child);
            } else if (isFile(child)) {
                std::remove(child.c_str());
            }
        }
        closedir(directory);
    }
    return !exists(path) || std::remove(path.c_str()) == 0;
}

// --- trees

enum class Kind { DIRECTORY, FILE, PIPE, LINK_TO_DIRECTORY, LINK_TO_FILE, DANGLING_LINK };

struct Entry {
    Kind kind;
    std::string path;    // Below the top.
    std::string target;  // Of a link: below the top, too.
};

/// "root" is to be removed, "outside" lies beside it. Links may lead to any directory of the two.
std::vector<Entry> anyTree(RandomSource& random) {
    std::vector<std::string> directories = {"root", "outside"};
    std::vector<Entry> tree = {{Kind::DIRECTORY, "root", ""},
                               {Kind::DIRECTORY, "outside", ""},
                               {Kind::FILE, "outside/file", ""}};
    int const count = random.between(2, 12);
    for (int i = 0; i < count; ++i) {
        auto const anyDirectory = [&] {
            return directories[random.below(static_cast<std::uint32_t>(directories.size()))];
        };
        Entry entry{Kind::FILE, anyDirectory() + "/" + std::to_string(i), ""};
        std::uint32_t const dice = random.below(20);
        if (dice < 7) {
            entry.kind = Kind::DIRECTORY;
            directories.push_back(entry.path);
        } else if (dice < 15) {
            entry.kind = Kind::LINK_TO_DIRECTORY;
            entry.target = anyDirectory();
        } else if (dice == 15) {
            entry.kind = Kind::PIPE;
        } else if (dice == 16) {
            entry.kind = Kind::LINK_TO_FILE;
            entry.target = "outside/file";
        } else if (dice == 17) {
            entry.kind = Kind::DANGLING_LINK;
            entry.target = "nowhere";
        }
        tree.push_back(entry);
    }
    return tree;
}

void make(std::vector<Entry> const& tree, std::string const& top) {
    test::makeDirectory(top);
    for (Entry const& entry : tree) {
        std::string const path = top + "/" + entry.path;
        switch (entry.kind) {
            case Kind::DIRECTORY:
                test::makeDirectory(path);
                break;
            case Kind::FILE:
                test::writeFile(path);
                break;
            case Kind::PIPE:
                test::makePipe(path);
                break;
            default:
                test::makeLink(top + "/" + entry.target, path);
        }
    }
}

std::set<std::string> whatIsLeft(std::string const& top) {
    std::set<std::string> left;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(top)) {
        left.insert(entry.path().string().substr(top.size() + 1));
    }
    return left;
}

std::set<std::string> without(std::set<std::string> const& all, std::set<std::string> const& some) {
    std::set<std::string> rest;
    std::set_difference(all.begin(), all.end(), some.begin(), some.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

bool isDirectoryOrDanglingLink(std::filesystem::path const& path) {
    return is_symlink(path) ? !exists(path) : is_directory(path);
}

std::string described(std::vector<Entry> const& tree) {
    std::string text = ovra::test::seedNote() + "\n";
    for (Entry const& entry : tree) {
        text += entry.path + (entry.kind == Kind::DIRECTORY ? "/" : "") +
                (entry.kind == Kind::PIPE ? " (a pipe)" : "") +
                (entry.target.empty() ? "" : " -> " + entry.target) + "\n";
    }
    return text;
}

class GuardedRemovalTest : public test::TemporaryDirectoryTest {};

TEST_F(GuardedRemovalTest, LeavesNothingThatThePlainStepsRemove) {
    test::makeDirectory(at("private"));
    test::ChildOutcome const outcome = test::onPrivateFileSystem(at("private"), "", [this] {
        RandomSource random(ovra::test::runSeed());
        int leavesLess = 0;
        int leavesMore = 0;
        int const rounds = ovra::test::scaled(1000);
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            std::vector<Entry> const tree = anyTree(random);
            std::string const guarded = at("private/guarded");
            std::string const plain = at("private/plain");
            make(tree, guarded);
            make(tree, plain);

            bool const guardedResult = FileHandle(guarded + "/root").RemoveDirectoryRecursive();
            bool const plainResult = removeByTheSteps(plain + "/root");

            std::set<std::string> const guardedLeft = whatIsLeft(guarded);
            std::set<std::string> const plainLeft = whatIsLeft(plain);
            std::set<std::string> const leftByTheGuardAlone = without(guardedLeft, plainLeft);
            for (std::string const& entry : leftByTheGuardAlone) {
                EXPECT_TRUE(isDirectoryOrDanglingLink(guarded + "/" + entry)) << entry << "\n"
                                                                              << described(tree);
            }
            EXPECT_TRUE(guardedResult || !plainResult || !leftByTheGuardAlone.empty())
                << described(tree);
            EXPECT_EQ(guardedResult, guardedLeft.count("root") == 0) << described(tree);
            leavesLess += without(plainLeft, guardedLeft).empty() ? 0 : 1;
            leavesMore += leftByTheGuardAlone.empty() ? 0 : 1;
            std::filesystem::remove_all(guarded);
            std::filesystem::remove_all(plain);
        }
        std::cout << "Of " << rounds << " trees, the guard leaves less of " << leavesLess
                  << " and more of " << leavesMore << "." << std::endl;
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

}  // namespace
}  // namespace ovra::fs
