// What a removal does when others move directories under it, at every one of its calls.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include <tests/extra/Mounted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;
using ::testing::ElementsAre;
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

    bool sharesNumbers = false;

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
                calls.sharesNumbers = sharesNumbers;
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

// Whoever opened it for reading would wait for a writer.
TEST_F(MovedDirectoriesTest, APipeInThePlaceOfADirectoryIsRemovedAsAPipe) {
    makeDirectory(at("t"));
    writeFile(at("t/f"));
    Intercepted calls;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "openat" && call.path == "t" && !entryExists(at("outside/moved"))) {
            EXPECT_EQ(rename(at("t").c_str(), at("outside/moved").c_str()), 0);
            makePipe(at("t"));
        }
        return 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("t")));
    EXPECT_TRUE(entryExists(at("outside/moved/f")));
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

TEST_F(MovedDirectoriesTest, AWayBackThatIsGoneIsNoFailure) {
    int const effects = meddleEverywhere(
        [&] {
            bool const isMoved = rename(level(5).c_str(), at("outside/moved").c_str()) == 0 &&
                                 rename(level(2).c_str(), at("outside/above").c_str()) == 0;
            if (isMoved) {
                makeDirectory(level(2));
            }
            return isMoved;
        },
        [&](Outcome outcome) {
            EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
            EXPECT_FALSE(entryExists(at("t")));
            clear("outside/moved");
            clear("outside/above");
        });
    EXPECT_GT(effects, 20);
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

// The root is not looked for elsewhere: what has its name then is removed.
TEST_F(MovedDirectoriesTest, WhatTakesTheNameOfTheRootIsRemoved) {
    std::function<void()> const replacements[] = {
        [&] { EXPECT_EQ(symlink(at("outside").c_str(), at("t").c_str()), 0); },
        [&] { writeFile(at("t")); },
        [&] {
            makeDirectory(at("t"));
            makeDirectory(at("t/d"));
            writeFile(at("t/d/new"));
        },
        [] {},
    };
    for (auto const& replace : replacements) {
        int const effects = meddleEverywhere(
            [&] {
                bool const isMoved = rename(at("t").c_str(), at("outside/moved").c_str()) == 0;
                if (isMoved) {
                    replace();
                }
                return isMoved;
            },
            [&](Outcome outcome) {
                // Nothing was there at the first look.
                bool const isMissing = outcome == Outcome::MISSING;
                EXPECT_TRUE(isMissing || outcome == Outcome::DONE) << outcomeName(outcome);
                EXPECT_FALSE(entryExists(at("t")));
                clear("outside/moved");
            });
        EXPECT_GT(effects, 20);
    }
}

TEST_F(MovedDirectoriesTest, GivesUpOnARootThatOthersKeepReplacing) {
    makeDirectory(at("t"));
    writeFile(at("t/f"));
    Intercepted calls;
    int replaced = 0;
    calls.before = [&](SystemCall const& call) {
        // Just before the root, emptied by then, is removed.
        if (call.name == "unlinkat" && call.path == "t" && namesIn(at("t")).empty()) {
            EXPECT_EQ(rename(at("t").c_str(), at("outside/" + std::to_string(replaced)).c_str()),
                      0);
            makeDirectory(at("t"));
            writeFile(at("t/f"));
            ++replaced;
        }
        return 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::EXISTS);
    EXPECT_EQ(replaced, 10);
    EXPECT_TRUE(entryExists(at("t/f")));
}

TEST_F(MovedDirectoriesTest, ARootThatIsADirectoryAgainIsRemovedAsOne) {
    makeDirectory(at("t"));
    writeFile(at("t/f"));
    Intercepted calls;
    int tries = 0;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "unlinkat" && call.path == "t" && ++tries == 1) {
            rename(at("t").c_str(), at("outside/moved").c_str());
            makeLink(at("outside"), at("t"));
        } else if (call.name == "unlinkat" && call.path == "t" && tries == 2) {
            EXPECT_EQ(call.flags, 0);
            unlink(at("t").c_str());
            rename(at("outside/moved").c_str(), at("t").c_str());
        }
        return 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
    EXPECT_GT(tries, 2);
    EXPECT_FALSE(entryExists(at("t")));
    expectOutsideWhole();
}

TEST_F(MovedDirectoriesTest, ARootThatBecomesADirectoryIsRemovedAsOne) {
    writeFile(at("t"));
    Intercepted calls;
    bool isReplaced = false;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "unlinkat" && call.path == "t" && !isReplaced) {
            isReplaced = true;
            unlink(at("t").c_str());
            makeDirectory(at("t"));
            writeFile(at("t/f"));
        }
        return 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::DONE);
    EXPECT_TRUE(isReplaced);
    EXPECT_FALSE(entryExists(at("t")));
}

// The process runs out of descriptors just when it looks whether the root is still there.
TEST_F(MovedDirectoriesTest, IsNeverDoneWhileTheRootStands) {
    makeDirectory(at("t"));
    writeFile(at("t/f"));
    Intercepted calls;
    bool isScanned = false;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "unlinkat" && call.path == "f") {
            isScanned = true;
        } else if (call.name == "unlinkat" && call.path == "t" && isScanned) {
            writeFile(at("t/new"));
        }
        return isScanned && call.name == "openat" ? EMFILE : 0;
    };
    EXPECT_EQ(removeTree(at("t")), Outcome::NO_DESCRIPTORS);
    EXPECT_TRUE(entryExists(at("t/new")));
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

// The usual system of a device: nothing of the tree has been written to since the system was built.
TEST_F(MovedDirectoriesTest, ATreeOnAnOverlayIsRemoved) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeDirectory(at("below"));
    makeDirectory(at("above"));
    makeDirectory(at("view"));
    for (bool const isFilledEverywhere : {true, false}) {
        Mounted const below("below", at("below"), "tmpfs", 0);
        Mounted const above("above", at("above"), "tmpfs", 0);
        makeDirectory(at("above/upper"));
        makeDirectory(at("above/work"));
        std::string path = at("below/t");
        for (int number = 0; number < 3 * DEPTH; ++number) {
            makeDirectory(path);
            if (isFilledEverywhere || number == 3 * DEPTH - 1) {
                writeFile(path + "/f");
            }
            path += "/d";
        }
        std::string const options = "lowerdir=" + at("below") + ",upperdir=" + at("above/upper") +
                                    ",workdir=" + at("above/work");
        if (mount("overlay", at("view").c_str(), "overlay", 0, options.c_str()) != 0) {
            GTEST_SKIP() << "no overlay can be mounted";
        }
        {
            Intercepted calls;
            EXPECT_EQ(removeTree(at("view/t")), Outcome::DONE);
            auto const opened = [&](char const* name) {
                return std::count_if(calls.calls().begin(), calls.calls().end(),
                                     [&](SystemCall const& call) {
                                         return call.name == "openat" && call.path == name;
                                     });
            };
            EXPECT_EQ(opened("t"), 1);              // Does not take it for another directory,
            EXPECT_LE(opened("d"), 3 * 3 * DEPTH);  // and goes down again once, not for each level.
        }
        EXPECT_THAT(namesIn(at("view")), ElementsAre());
        EXPECT_THAT(namesIn(at("below/t")), ::testing::Contains("d"));
        ASSERT_EQ(umount2(at("view").c_str(), MNT_DETACH), 0);
    }
}

// A directory can have the number that another one had before it.
TEST_F(MovedDirectoriesTest, ADirectoryWithTheSameNumberIsDistinguishedByItsBirth) {
    auto const birthOf = [](std::string const& path) {
        struct statx status = {};
        EXPECT_EQ(statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
        bool const isKnown = (status.stx_mask & STATX_BTIME) != 0;
        return isKnown ? status.stx_btime.tv_sec * 1000000000 + status.stx_btime.tv_nsec : 0;
    };
    auto const outside = birthOf(at("outside"));
    if (outside == 0) {
        GTEST_SKIP() << "the file system keeps no time of birth";
    }
    for (auto born = outside; born == outside; born = birthOf(at("later"))) {
        rmdir(at("later").c_str());
        makeDirectory(at("later"));  // By the same tick of the clock, at first.
    }
    sharesNumbers = true;
    int const effects =
        meddleEverywhere([&] { return rename(level(5).c_str(), at("outside/moved").c_str()) == 0; },
                         [&](Outcome outcome) {
                             EXPECT_EQ(outcome, Outcome::DONE) << outcomeName(outcome);
                             EXPECT_FALSE(entryExists(at("t")));
                             clear("outside/moved");
                         });
    EXPECT_GT(effects, 20);
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
