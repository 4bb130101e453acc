// What a removal does when others move directories under it, at every one of its calls.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/extra/RemoveTree.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Contained.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;
using ::testing::UnorderedElementsAre;

constexpr int DEPTH = 14;  // More than are kept open.

class MovedDirectoriesTest : public TemporaryDirectoryTest {
protected:
    // Outside, everything has the names that there are in the tree.
    MovedDirectoriesTest() {
        makeDirectory(at("outside"));
        makeDirectory(at("outside/d"));
        writeFile(at("outside/d/f"));
        writeFile(at("outside/f"));
        makeDirectory(at("outside/side"));
        writeFile(at("outside/side/f"));
    }

    /// A chain of directories "t/d/d/d...", each with a file and a second directory.
    void makeTree() {
        std::string path = at("t");
        for (int level = 0; level < DEPTH; ++level) {
            makeDirectory(path);
            writeFile(path + "/f");
            makeDirectory(path + "/side");
            writeFile(path + "/side/f");
            path += "/d";
        }
    }

    std::string level(int number) const {
        std::string path = at("t");
        for (int i = 0; i < number; ++i) {
            path += "/d";
        }
        return path;
    }

    void expectOutsideWhole() const {
        for (char const* const file : {"outside/f", "outside/d/f", "outside/side/f"}) {
            EXPECT_EQ(readFile(at(file)), "contents") << file;
        }
        EXPECT_THAT(namesIn(at("outside/d")), UnorderedElementsAre("f"));
        EXPECT_THAT(namesIn(at("outside/side")), UnorderedElementsAre("f"));
    }

    void clear(std::string const& name) const {
        EXPECT_NE(removeTree(at(name)), Outcome::REFUSED);
        ASSERT_FALSE(entryExists(at(name)));
    }

    /// Removes the tree once for every call that this takes, and calls `meddle` before that call.
    /// Returns how often `meddle` did something.
    int meddleEverywhere(std::function<bool()> const& meddle,
                         std::function<void(Outcome)> const& check) {
        int effects = 0;
        bool isReached = true;
        for (int at = 0; isReached; ++at) {
            makeTree();
            Outcome outcome;
            {
                Intercepted calls;
                int made = 0;
                isReached = false;
                calls.before = [&](SystemCall const&) {
                    if (made++ == at) {
                        isReached = true;
                        effects += meddle() ? 1 : 0;
                    }
                    return 0;
                };
                outcome = removeTree(this->at("t"));
            }
            check(outcome);
            expectOutsideWhole();
            clear("t");
            if (HasFailure()) {
                ADD_FAILURE() << "before call " << at;
                break;
            }
        }
        return effects;
    }
};

TEST_F(MovedDirectoriesTest, WhatIsMovedOutNeverLeadsOutside) {
    for (int const moved : {1, 2, 5, 9, 12, 13}) {
        int const effects = meddleEverywhere(
            [&] {
                // At other places than where the name is wanted, so that nothing is replaced.
                return rename(level(moved).c_str(), at("outside/moved").c_str()) == 0;
            },
            [&](Outcome outcome) {
                EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
                EXPECT_FALSE(entryExists(at("t")));
                clear("outside/moved");
            });
        EXPECT_GT(effects, 20) << moved;
    }
}

TEST_F(MovedDirectoriesTest, ALinkInThePlaceOfADirectoryIsRemovedAsALink) {
    for (int const moved : {1, 2, 5, 9, 12, 13}) {
        int const effects = meddleEverywhere(
            [&] {
                bool const isMoved = rename(level(moved).c_str(), at("outside/moved").c_str()) == 0;
                return isMoved && symlink(at("outside").c_str(), level(moved).c_str()) == 0;
            },
            [&](Outcome outcome) {
                EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
                EXPECT_FALSE(entryExists(at("t")));
                clear("outside/moved");
            });
        EXPECT_GT(effects, 20) << moved;
    }
}

TEST_F(MovedDirectoriesTest, AnotherDirectoryInThePlaceOfOneIsRemovedInItsPlace) {
    for (int const moved : {2, 5, 13}) {
        int const effects = meddleEverywhere(
            [&] {
                bool const isMoved = rename(level(moved).c_str(), at("outside/moved").c_str()) == 0;
                if (isMoved) {
                    makeDirectory(level(moved));
                    makeDirectory(level(moved) + "/d");
                    writeFile(level(moved) + "/d/new");
                }
                return isMoved;
            },
            [&](Outcome outcome) {
                EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
                EXPECT_FALSE(entryExists(at("t")));
                clear("outside/moved");
            });
        EXPECT_GT(effects, 20) << moved;
    }
}

TEST_F(MovedDirectoriesTest, WhatIsMovedWithinTheTreeIsRemovedThere) {
    int const effects = meddleEverywhere(
        [&] { return rename(level(11).c_str(), (level(1) + "/moved").c_str()) == 0; },
        [&](Outcome outcome) {
            EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
            EXPECT_FALSE(entryExists(at("t")));
        });
    EXPECT_GT(effects, 20);
}

TEST_F(MovedDirectoriesTest, ARootThatIsMovedIsNotLookedForElsewhere) {
    int const effects = meddleEverywhere(
        [&] {
            bool const isMoved = rename(at("t").c_str(), at("outside/moved").c_str()) == 0;
            return isMoved && symlink(at("outside").c_str(), at("t").c_str()) == 0;
        },
        [&](Outcome) {
            clear("outside/moved");
            if (entryExists(at("t"))) {
                EXPECT_EQ(linkContents(at("t")), at("outside"));
            }
        });
    EXPECT_GT(effects, 20);
}

TEST_F(MovedDirectoriesTest, NewEntriesAreRemovedAsWell) {
    int const effects = meddleEverywhere(
        [&] {
            bool const isMade = mkdir((level(3) + "/new").c_str(), 0777) == 0;
            if (isMade) {
                writeFile(level(3) + "/new/f");
            }
            return isMade;
        },
        [&](Outcome outcome) {
            EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
            EXPECT_FALSE(entryExists(at("t")));
        });
    EXPECT_GT(effects, 20);
}

TEST_F(MovedDirectoriesTest, GivesUpOnADirectoryThatOthersKeepFilling) {
    makeDirectory(at("t"));
    Intercepted calls;
    int made = 0;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "unlinkat" && call.path == "t") {
            writeFile(at("t/") + std::to_string(made++));
        }
        return 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::EXISTS);
    calls.before = nullptr;
    EXPECT_EQ(made, 11);  // Once before it is entered, and after each of ten scans.
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
}

TEST_F(MovedDirectoriesTest, WhatVanishesMeanwhileIsNoFailure) {
    for (int const number : {0, 5, 13}) {
        int const effects = meddleEverywhere(
            [&] {
                std::string const directory = level(number);
                bool const isFileGone = unlink((directory + "/f").c_str()) == 0;
                unlink((directory + "/side/f").c_str());
                return rmdir((directory + "/side").c_str()) == 0 || isFileGone;
            },
            [&](Outcome outcome) {
                EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
                EXPECT_FALSE(entryExists(at("t")));
            });
        EXPECT_GT(effects, 2) << number;
    }
}

TEST_F(MovedDirectoriesTest, MountPointsOfTheSameDeviceAreNotCrossedOnOlderSystemsEither) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeTree();
    std::string const point = level(3) + "/side";
    ASSERT_EQ(mount(at("outside").c_str(), point.c_str(), nullptr, MS_BIND, nullptr), 0);
    {
        Intercepted calls;
        calls.hidesMounts = true;
        EXPECT_EQ(removeTree(at("t")), Outcome::BUSY);
    }
    expectOutsideWhole();
    ASSERT_EQ(umount2(point.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
}

// Never more, whatever is moved: the directories that are open, counted at every call.
TEST_F(MovedDirectoriesTest, NeedsAtMostSixteenDescriptors) {
    makeTree();
    std::size_t const before = openDescriptors().size();
    std::size_t most = 0;
    {
        Intercepted calls;
        int made = 0;
        calls.before = [&](SystemCall const&) {
            most = std::max(most, openDescriptors().size());
            if (++made == 150) {
                EXPECT_EQ(rename(level(4).c_str(), at("outside/moved").c_str()), 0);
            }
            return 0;
        };
        EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
        for (SystemCall const& call : calls.calls()) {
            if (call.name == "openat") {
                EXPECT_NE(call.flags & O_CLOEXEC, 0) << call.path;
            }
        }
    }
    EXPECT_LE(most, before + 16);
    EXPECT_GT(most, before + 8);
    clear("outside/moved");
}

// File systems that do not say what kind an entry is of.
TEST_F(MovedDirectoriesTest, EntriesOfAnUnknownKindAreRemoved) {
    makeTree();
    makeLink(at("outside"), at("t/link"));
    Intercepted calls;
    calls.hidesKinds = true;
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("t")));
    expectOutsideWhole();
}

// File systems whose directories lose their place when entries go.
TEST_F(MovedDirectoriesTest, WhatAScanLeavesOutIsFoundByTheNext) {
    makeTree();
    Intercepted calls;
    calls.mostEntries = 1;
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("t")));
}

}  // namespace

}  // namespace ovra::extra
