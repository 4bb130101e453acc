#include <ovra/fs/FileIterator.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>

#include <tests/fs/FileTest.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/fs/TestPeers.h>

namespace ovra::fs {
namespace {

using ::testing::IsNull;
using ::testing::NiceMock;
using ::testing::NotNull;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::Throw;

using test::makeDirectory;
using test::makeLink;
using test::namesIn;
using test::openDescriptors;
using test::OrdinaryUser;
using test::setPermissions;
using test::WorkingDirectory;
using test::writeFile;

static_assert(sizeof(FileIterator) == sizeof(void*), "the back end and nothing else");
static_assert(IS<decltype(&FileIterator::operator*), FilePath (FileIterator::*)() const>);
static_assert(IS<decltype(&FileIterator::operator++), void (FileIterator::*)()>);
static_assert(
    IS<decltype(&FileIterator::operator==), bool (FileIterator::*)(FileIterator const&) const>);
static_assert(
    IS<decltype(&FileIterator::operator!=), bool (FileIterator::*)(FileIterator const&) const>);
static_assert(IS<decltype(std::declval<FileIterator&>() = std::declval<FileIterator const&>()),
                 FileIterator&>);

class MockIteratorBackend : public FileIteratorBackend {
public:
    MOCK_METHOD(bool, Valid, (), (const, override));
    MOCK_METHOD(std::string, Path, (), (const, override));
    MOCK_METHOD(int, Index, (), (const, override));
    MOCK_METHOD(std::string, Name, (), (const, override));
    MOCK_METHOD(void, Next, (), (override));
};

/// A back end of which only the position matters.
class Position : public FileIteratorBackend {
public:
    Position(bool isValid, std::string directory, int ordinal)
        : valid(isValid), path(std::move(directory)), index(ordinal) {}

    bool Valid() const override { return valid; }
    std::string Path() const override { return path; }
    int Index() const override { return index; }
    std::string Name() const override { return "name"; }
    void Next() override { ++index; }

private:
    bool valid;
    std::string path;
    int index;
};

// --- the iterator over any back end

TEST(FileIteratorTest, IsTheEndWhenDefaultConstructed) {
    FileIterator end;
    EXPECT_THAT(FileIteratorTestPeer::backendOf(end), IsNull());
    EXPECT_EQ((*end).Path(), "");
    ++end;
    EXPECT_THAT(FileIteratorTestPeer::backendOf(end), IsNull());
    EXPECT_TRUE(end == FileIterator());
    EXPECT_FALSE(end != FileIterator());
    EXPECT_TRUE(end == end);
}

TEST(FileIteratorTest, JoinsPathAndNameWithoutAskingForValidity) {
    struct Row {
        std::string path;
        std::string name;
        std::string result;
    };
    for (Row const& row : std::vector<Row>{{"/x/y", "n", "/x/y/n"},
                                           {"/x/y/", "n", "/x/y//n"},
                                           {"/x/y", "", "/x/y/"},
                                           {"", "", "/"},
                                           {"", "n", "/n"}}) {
        // The strict back end fails the test for any other call.
        auto backend = std::make_unique<StrictMock<MockIteratorBackend>>();
        EXPECT_CALL(*backend, Path()).WillOnce(Return(row.path));
        EXPECT_CALL(*backend, Name()).WillOnce(Return(row.name));
        FileIterator iterator;
        FileIteratorTestPeer::install(iterator, std::move(backend));
        EXPECT_EQ((*iterator).Path(), row.result);
    }
}

TEST(FileIteratorTest, AdvancesItsBackEndOnce) {
    auto backend = std::make_unique<StrictMock<MockIteratorBackend>>();
    EXPECT_CALL(*backend, Next());
    FileIterator iterator;
    FileIteratorTestPeer::install(iterator, std::move(backend));
    ++iterator;
}

TEST(FileIteratorTest, ComparesValidityThenPathAndIndex) {
    struct Row {
        Position left;
        Position right;
        bool equal;
    };
    for (Row const& row : std::vector<Row>{
             {{true, "/a", 1}, {true, "/a", 1}, true},
             {{true, "/a", 1}, {true, "/a", 2}, false},
             {{true, "/a", 1}, {true, "/b", 1}, false},
             {{true, "/a", 1}, {true, "/a/", 1}, false},
             {{true, "/a", 1}, {true, "/A", 1}, false},
             {{true, std::string("a\0b", 3), 1}, {true, std::string("a\0c", 3), 1}, false},
             {{true, "", 0}, {true, "", 0}, true},
             {{true, "/a", 1}, {false, "/a", 1}, false},
             {{false, "/a", 1}, {true, "/a", 1}, false},
             {{false, "/a", 1}, {false, "/a", 1}, true},
             {{false, "/a", 1}, {false, "/b", 7}, true},
         }) {
        FileIterator left;
        FileIterator right;
        FileIteratorTestPeer::install(left, std::make_unique<Position>(row.left));
        FileIteratorTestPeer::install(right, std::make_unique<Position>(row.right));
        std::string const what = row.left.Path() + " and " + row.right.Path();
        EXPECT_EQ(left == right, row.equal) << what;
        EXPECT_EQ(right == left, row.equal) << what;
        EXPECT_EQ(left != right, !row.equal) << what;
        EXPECT_EQ(left == FileIterator(), !row.left.Valid()) << what;
        EXPECT_EQ(FileIterator() == left, !row.left.Valid()) << what;
        EXPECT_EQ(FileIterator() != left, row.left.Valid()) << what;
    }
}

TEST(FileIteratorTest, KeepsItsBackEndWhenAnAssignmentFails) {
    auto failing = std::make_unique<NiceMock<MockIteratorBackend>>();
    EXPECT_CALL(*failing, Path()).WillOnce(Throw(std::bad_alloc()));
    FileIterator source;
    FileIteratorTestPeer::install(source, std::move(failing));
    FileIterator target;
    FileIteratorTestPeer::install(target, std::make_unique<Position>(true, "/kept", 3));
    FileIteratorBackend const* const before = FileIteratorTestPeer::backendOf(target);
    EXPECT_THROW(target = source, std::bad_alloc);
    EXPECT_EQ(FileIteratorTestPeer::backendOf(target), before);
}

TEST(FileIteratorTest, SwapsTheNewBackEndInBeforeTheOldOneGoes) {
    struct Watched : Position {
        Watched(FileIterator const& holder, bool& flag)
            : Position(true, "/old", 0), iterator(holder), sawAnother(flag) {}
        ~Watched() override {
            FileIteratorBackend const* const installed = FileIteratorTestPeer::backendOf(iterator);
            sawAnother = installed != nullptr && installed != this;
        }
        FileIterator const& iterator;
        bool& sawAnother;
    };
    bool sawAnother = false;
    FileIterator iterator;
    FileIteratorTestPeer::install(iterator, std::make_unique<Watched>(iterator, sawAnother));
    iterator = FileIterator("/proc/self");
    EXPECT_TRUE(sawAnother);
}

// --- the iterator over directories

class FileIteratorOnDiskTest : public test::TemporaryDirectoryTest {
protected:
    /// A directory "x/y" with three files, and one more beside it in "x".
    FileIteratorOnDiskTest() {
        makeDirectory(at("x"));
        makeDirectory(at("x/y"));
        writeFile(at("x/y/a"));
        writeFile(at("x/y/b"));
        writeFile(at("x/y/c"));
        writeFile(at("x/beside"));
        names = namesIn(at("x/y"));
        outerNames = namesIn(at("x"));
    }

    static void exhaust(FileIterator& iterator) {
        while (iterator != FileIterator()) {
            ++iterator;
        }
    }

    std::vector<std::string> names;
    std::vector<std::string> outerNames;
};

TEST_F(FileIteratorOnDiskTest, ScansADirectoryFromBeginToEnd) {
    FileHandle directory(at("x/y"));
    std::vector<std::string> paths;
    for (FileIterator entry = directory.Begin(); entry != directory.End(); ++entry) {
        paths.push_back((*entry).Path());
    }
    std::vector<std::string> expected;
    for (std::string const& name : names) {
        expected.push_back(at("x/y/") + name);
    }
    EXPECT_EQ(paths, expected);
}

TEST_F(FileIteratorOnDiskTest, UsesThePosixBackEnd) {
    FileIterator const iterator(at("x/y"));
    EXPECT_TRUE(hasPosixBackend(iterator));
    FileIterator const copy(iterator);
    EXPECT_TRUE(hasPosixBackend(copy));
    FileIterator custom;
    FileIteratorTestPeer::install(custom, std::make_unique<Position>(true, at("x/y"), 7));
    FileIterator const copyOfCustom(custom);
    EXPECT_TRUE(hasPosixBackend(copyOfCustom));
    FileIterator assigned;
    assigned = custom;
    EXPECT_TRUE(hasPosixBackend(assigned));
    EXPECT_EQ(backendOf(assigned).Index(), 0);
}

TEST_F(FileIteratorOnDiskTest, EqualsTheEndWhereThereIsNothingToRead) {
    makeDirectory(at("empty"));
    writeFile(at("file"));
    makeLink("missing", at("dangling"));
    makeLink("loop", at("loop"));
    for (std::string const& path :
         {at("empty"), at("file"), at("missing"), at("dangling"), at("loop"), std::string()}) {
        FileHandle handle(path);
        EXPECT_EQ(handle.Begin(), handle.End()) << path;
        EXPECT_EQ(FileIterator(path), FileIterator()) << path;
        EXPECT_EQ(FileIterator(path), FileIterator(at("missing"))) << path;
    }
    FileIterator iterator(at("x/y"));
    EXPECT_NE(iterator, FileIterator());
    exhaust(iterator);
    EXPECT_EQ(iterator, FileIterator());
    EXPECT_EQ(iterator, FileIterator(at("empty")));
    EXPECT_EQ(iterator, FileIterator(at("missing")));
}

TEST_F(FileIteratorOnDiskTest, EqualsTheEndOfADirectoryThatMayNotBeRead) {
    OrdinaryUser const ordinary(root);
    makeDirectory(at("closed"));
    writeFile(at("closed/file"));
    setPermissions(at("closed"), 0300);
    FileHandle closed(at("closed"));
    EXPECT_EQ(closed.Begin(), closed.End());
    EXPECT_FALSE(closed.RemoveDirectoryRecursive());
    setPermissions(at("closed"), 0700);
    EXPECT_TRUE(test::entryExists(at("closed/file")));
}

TEST_F(FileIteratorOnDiskTest, EqualsAnotherOnTheSameEntry) {
    FileIterator one(at("x/y"));
    FileIterator other(at("x/y"));
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_TRUE(one == other);
        EXPECT_FALSE(one != other);
        ++one;
        if (i + 1 < names.size()) {
            EXPECT_FALSE(one == other) << "at different entries";
            EXPECT_TRUE(one != other);
        }
        ++other;
    }
    EXPECT_EQ(one, other);
}

TEST_F(FileIteratorOnDiskTest, NeverEqualsOneOverAnotherDirectoryWhileBothStandOnAnEntry) {
    EXPECT_NE(FileIterator(at("x")), FileIterator(at("x/y")));
    EXPECT_NE(FileIterator(at("x/y/")), FileIterator(at("x/y"))) << "the same, written otherwise";
}

TEST_F(FileIteratorOnDiskTest, YieldsTheDirectoryAndASeparatorAtItsEnd) {
    FileIterator iterator(at("x/y"));
    exhaust(iterator);
    EXPECT_EQ((*iterator).Path(), at("x/y/"));
    ++iterator;
    EXPECT_EQ((*iterator).Path(), at("x/y/"));
    EXPECT_EQ((*FileIterator(at("missing"))).Path(), at("missing/"));
}

TEST_F(FileIteratorOnDiskTest, StartsOverWhenCopied) {
    FileIterator source(at("x/y"));
    ++source;
    ++source;
    ASSERT_EQ((*source).FileName(), names[2]);
    FileIterator const copy(source);
    FileIterator assigned(at("x"));
    EXPECT_EQ(&(assigned = source), &assigned);
    for (FileIterator const* const fresh : {&copy, static_cast<FileIterator const*>(&assigned)}) {
        EXPECT_EQ(backendOf(*fresh).Path(), at("x/y/"));
        EXPECT_EQ(backendOf(*fresh).Index(), 0);
        EXPECT_EQ((**fresh).Path(), at("x/y//") + names[0]);
        EXPECT_NE(*fresh, source);
    }
    EXPECT_EQ((*source).FileName(), names[2]) << "the source stays where it is";
    EXPECT_EQ(copy, assigned);
}

TEST_F(FileIteratorOnDiskTest, NeverEqualsACopyWhoseDirectoryHasASeparatorMore) {
    FileIterator source(at("x/y"));
    FileIterator copy(source);
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_NE(source, copy);
        EXPECT_NE(FileIterator(at("x/y")), copy);
        ++source;
        ++copy;
    }
    EXPECT_EQ(source, copy) << "at the end";
}

TEST_F(FileIteratorOnDiskTest, EqualsACopyOfACopyOnTheSameEntry) {
    FileIterator const source(at("x/y"));
    FileIterator copy(source);
    FileIterator const copyOfCopy(copy);
    EXPECT_EQ(backendOf(copyOfCopy).Path(), at("x/y/"));
    EXPECT_EQ(copyOfCopy, copy);
    ++copy;
    EXPECT_NE(copyOfCopy, copy);
    EXPECT_EQ(FileIterator(copy), copyOfCopy) << "on the first entry again";
}

TEST_F(FileIteratorOnDiskTest, IsCopiedToTheParentFromItsEnd) {
    FileIterator source(at("x/y"));
    exhaust(source);
    FileIterator const copy(source);
    EXPECT_EQ(backendOf(copy).Path(), at("x/"));
    EXPECT_EQ(backendOf(copy).Index(), 0);
    EXPECT_EQ((*copy).FileName(), outerNames[0]);
    FileIterator assigned;
    assigned = source;
    EXPECT_EQ(assigned, copy);

    // A directory that cannot be opened is treated the same.
    FileIterator const unopened(at("x/missing"));
    EXPECT_EQ(FileIterator(unopened), copy);
    EXPECT_EQ(backendOf(FileIterator(unopened)).Path(), at("x/"));
}

TEST_F(FileIteratorOnDiskTest, IsCopiedToItsOwnDirectoryFromItsEndAfterASeparator) {
    FileIterator source(at("x/y/"));
    exhaust(source);
    FileIterator const copy(source);
    EXPECT_EQ(backendOf(copy).Path(), at("x/y/"));
    EXPECT_EQ((*copy).FileName(), names[0]);
}

TEST_F(FileIteratorOnDiskTest, IsCopiedToTheEndFromTheEndOfARelativeComponent) {
    WorkingDirectory const here(at("x"));
    FileIterator source("y");
    EXPECT_EQ(backendOf(FileIterator(source)).Path(), "y/") << "still on an entry";
    exhaust(source);
    FileIterator const copy(source);
    EXPECT_EQ(copy, FileIterator());
    EXPECT_EQ(backendOf(copy).Path(), "");
    EXPECT_EQ(backendOf(copy).Index(), -1);
    FileIterator assigned(at("x"));
    assigned = source;
    EXPECT_EQ(assigned, FileIterator());
}

TEST_F(FileIteratorOnDiskTest, IsCopiedFromTheEndToAnUnopenedOne) {
    FileIterator const end;
    FileIterator const copy(end);
    ASSERT_THAT(FileIteratorTestPeer::backendOf(copy), NotNull());
    EXPECT_EQ(backendOf(copy).Path(), "");
    EXPECT_FALSE(backendOf(copy).Valid());
    EXPECT_EQ(copy, end);
    // The empty path with a separator is the root.
    FileIterator const copyOfCopy(copy);
    EXPECT_EQ(backendOf(copyOfCopy).Path(), "/");
    EXPECT_NE(copyOfCopy, end);
    EXPECT_EQ(copyOfCopy, FileIterator("/"));
}

TEST_F(FileIteratorOnDiskTest, BecomesTheEndWhenTheEndIsAssigned) {
    std::size_t const before = openDescriptors().size();
    FileIterator iterator(at("x/y"));
    EXPECT_EQ(openDescriptors().size(), before + 1);
    EXPECT_EQ(&(iterator = FileIterator()), &iterator);
    EXPECT_THAT(FileIteratorTestPeer::backendOf(iterator), IsNull());
    EXPECT_EQ(openDescriptors().size(), before) << "the directory is closed at once";
    EXPECT_EQ((*iterator).Path(), "");
}

TEST_F(FileIteratorOnDiskTest, StartsOverWhenAssignedToItself) {
    FileIterator iterator(at("x/y"));
    FileIterator const& same = iterator;
    ++iterator;
    iterator = same;
    EXPECT_EQ(backendOf(iterator).Path(), at("x/y/"));
    EXPECT_EQ(backendOf(iterator).Index(), 0);
    FileIterator end;
    FileIterator const& sameEnd = end;
    end = sameEnd;
    EXPECT_THAT(FileIteratorTestPeer::backendOf(end), IsNull());
}

TEST_F(FileIteratorOnDiskTest, IsMovedByCopying) {
    FileIterator source(at("x/y"));
    ++source;
    FileIterator const moved(std::move(source));
    ASSERT_THAT(FileIteratorTestPeer::backendOf(source), NotNull());
    EXPECT_EQ((*source).FileName(), names[1]);
    EXPECT_EQ((*moved).Path(), at("x/y//") + names[0]);
}

TEST_F(FileIteratorOnDiskTest, HoldsOneDescriptorEachAndClosesThemAll) {
    std::size_t const before = openDescriptors().size();
    {
        FileIterator const one(at("x/y"));
        FileIterator two(one);
        FileIterator const end;
        EXPECT_EQ(openDescriptors().size(), before + 2);
        two = one;
        EXPECT_EQ(openDescriptors().size(), before + 2);
        two = end;
        EXPECT_EQ(openDescriptors().size(), before + 1);
    }
    EXPECT_EQ(openDescriptors().size(), before);
}

TEST_F(FileIteratorOnDiskTest, LooksEmptyWhenNoDescriptorIsLeft) {
    FileHandle directory(at("x/y"));
    // Before as well: a sanitizer opens descriptors of its own for types that it has not seen.
    ASSERT_NE(directory.Begin(), directory.End());
    ASSERT_FALSE(directory.ListDirectory().empty());
    makeDirectory(at("empty"));
    ASSERT_TRUE(FileHandle(at("empty")).RemoveDirectoryRecursive());
    test::DescriptorLimit const none(0);
    EXPECT_EQ(directory.Begin(), directory.End());
    EXPECT_TRUE(directory.ListDirectory().empty());
    EXPECT_FALSE(directory.RemoveDirectoryRecursive());
}

TEST_F(FileIteratorOnDiskTest, SurvivesTheRemovalOfItsDirectory) {
    FileIterator iterator(at("x/y"));
    for (std::string const& name : names) {
        ASSERT_EQ(std::remove((at("x/y/") + name).c_str()), 0);
    }
    ASSERT_EQ(std::remove(at("x/y").c_str()), 0);
    std::size_t steps = 0;
    while (iterator != FileIterator() && steps <= names.size()) {
        ++iterator;
        ++steps;
    }
    EXPECT_LE(steps, names.size());
    EXPECT_EQ(iterator, FileIterator());
}

TEST_F(FileIteratorOnDiskTest, DeliversEveryOneOfTwentyThousandEntriesOnce) {
    makeDirectory(at("many"));
    writeFile(at("first"));
    for (int i = 0; i < 20000; ++i) {
        test::makeHardLink(at("first"), at("many/") + std::to_string(i));
    }
    std::vector<bool> seen(20000, false);
    FileHandle many(at("many"));
    int count = 0;
    FileIterator const end = many.End();
    for (FileIterator entry = many.Begin(); entry != end; ++entry) {
        EXPECT_EQ(backendOf(entry).Index(), count);
        ++count;
        std::size_t const number = std::stoul((*entry).FileName());
        EXPECT_FALSE(seen.at(number)) << number;
        seen.at(number) = true;
    }
    EXPECT_EQ(count, 20000);
}

}  // namespace
}  // namespace ovra::fs
