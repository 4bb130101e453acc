#include <ovra/fs/FileHandle.h>

#include <cstdint>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/fs/TestPeers.h>

namespace ovra::fs {
namespace {

using ::testing::AtMost;
using ::testing::ByMove;
using ::testing::ElementsAre;
using ::testing::Invoke;
using ::testing::IsNull;
using ::testing::NotNull;
using ::testing::Ref;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::Throw;

using Names = std::vector<std::string>;
using Input = std::unique_ptr<std::istream>;
using Output = std::unique_ptr<std::ostream>;
using Mode = std::ios_base::openmode;

class MockBackend : public FileHandleBackend {
public:
    MOCK_METHOD(std::string, Path, (), (const, override));
    MOCK_METHOD(bool, Exists, (), (const, override));
    MOCK_METHOD(bool, IsFile, (), (const, override));
    MOCK_METHOD(bool, IsDirectory, (), (const, override));
    MOCK_METHOD(bool, IsSymbolicLink, (), (const, override));
    MOCK_METHOD(Names, ListDirectory, (), (const, override));
    MOCK_METHOD(std::int64_t, Size, (), (const, override));
    MOCK_METHOD(std::int64_t, ModificationTime, (), (const, override));
    MOCK_METHOD(std::unique_ptr<FileHandleBackend>, Open, (std::string const&), (const, override));
    MOCK_METHOD(bool, CreateDirectory, (), (override));
    MOCK_METHOD(bool, RemoveDirectory, (), (override));
    MOCK_METHOD(bool, CreateSymbolicLink, (FileHandle const&), (override));
    MOCK_METHOD(bool, Copy, (FileHandle const&), (override));
    MOCK_METHOD(bool, Move, (FileHandle const&), (override));
    MOCK_METHOD(bool, Rename, (std::string const&), (override));
    MOCK_METHOD(bool, Remove, (), (override));
    MOCK_METHOD(unsigned int, UserId, (), (const, override));
    MOCK_METHOD(void, SetUserId, (unsigned int), (override));
    MOCK_METHOD(unsigned int, GroupId, (), (const, override));
    MOCK_METHOD(void, SetGroupId, (unsigned int), (override));
    MOCK_METHOD(unsigned long, Permissions, (), (const, override));
    MOCK_METHOD(void, SetPermissions, (unsigned long), (override));
    MOCK_METHOD(Input, CreateInputStream, (Mode), (const, override));
    MOCK_METHOD(Output, CreateOutputStream, (Mode), (const, override));
    MOCK_METHOD(void, UpdateFileStatus, (), (override));
    MOCK_METHOD(void, destroyed, ());

    ~MockBackend() override { destroyed(); }
};

/// A handle on a back end that fails the test for every call that is not expected.
class FileHandleForwardingTest : public ::testing::Test {
protected:
    FileHandleForwardingTest() {
        auto owned = std::make_unique<StrictMock<MockBackend>>();
        backend = owned.get();
        EXPECT_CALL(*backend, destroyed()).Times(AtMost(1));
        FileHandleTestPeer::install(handle, std::move(owned));
    }

    FileHandle handle{"unused"};
    StrictMock<MockBackend>* backend;
};

TEST_F(FileHandleForwardingTest, HandsOverEveryQuestion) {
    for (bool const answer : {true, false}) {
        EXPECT_CALL(*backend, Exists()).WillOnce(Return(answer));
        EXPECT_EQ(handle.Exists(), answer);
        EXPECT_CALL(*backend, IsFile()).WillOnce(Return(answer));
        EXPECT_EQ(handle.IsFile(), answer);
        EXPECT_CALL(*backend, IsDirectory()).WillOnce(Return(answer));
        EXPECT_EQ(handle.IsDirectory(), answer);
        EXPECT_CALL(*backend, IsSymbolicLink()).WillOnce(Return(answer));
        EXPECT_EQ(handle.IsSymbolicLink(), answer);
    }
    EXPECT_CALL(*backend, ListDirectory()).WillOnce(Return(Names{"b", "a"}));
    EXPECT_THAT(handle.ListDirectory(), ElementsAre("b", "a"));
    EXPECT_CALL(*backend, Size()).WillOnce(Return(std::int64_t{1} << 40));
    EXPECT_EQ(handle.Size(), std::int64_t{1} << 40);
    EXPECT_CALL(*backend, ModificationTime()).WillOnce(Return(-(std::int64_t{1} << 40)));
    EXPECT_EQ(handle.ModificationTime(), -(std::int64_t{1} << 40));
    EXPECT_CALL(*backend, UserId()).WillOnce(Return(0xfffffffeu));
    EXPECT_EQ(handle.UserId(), 0xfffffffeu);
    EXPECT_CALL(*backend, GroupId()).WillOnce(Return(0xfffffffdu));
    EXPECT_EQ(handle.GroupId(), 0xfffffffdu);
    EXPECT_CALL(*backend, Permissions()).WillOnce(Return(0xfffffffcul));
    EXPECT_EQ(handle.Permissions(), 0xfffffffcul);
}

TEST_F(FileHandleForwardingTest, HandsOverEveryChangeWithItsArgument) {
    FileHandle target("target");
    for (bool const answer : {true, false}) {
        EXPECT_CALL(*backend, CreateDirectory()).WillOnce(Return(answer));
        EXPECT_EQ(handle.CreateDirectory(), answer);
        EXPECT_CALL(*backend, RemoveDirectory()).WillOnce(Return(answer));
        EXPECT_EQ(handle.RemoveDirectory(), answer);
        EXPECT_CALL(*backend, CreateSymbolicLink(Ref(target))).WillOnce(Return(answer));
        EXPECT_EQ(handle.CreateSymbolicLink(target), answer);
        EXPECT_CALL(*backend, Copy(Ref(target))).WillOnce(Return(answer));
        EXPECT_EQ(handle.Copy(target), answer);
        EXPECT_CALL(*backend, Move(Ref(target))).WillOnce(Return(answer));
        EXPECT_EQ(handle.Move(target), answer);
        EXPECT_CALL(*backend, Rename("../new//name/")).WillOnce(Return(answer));
        EXPECT_EQ(handle.Rename("../new//name/"), answer);
        EXPECT_CALL(*backend, Remove()).WillOnce(Return(answer));
        EXPECT_EQ(handle.Remove(), answer);
    }
    EXPECT_CALL(*backend, SetUserId(0xffffffffu));
    handle.SetUserId(0xffffffffu);
    EXPECT_CALL(*backend, SetGroupId(7u));
    handle.SetGroupId(7u);
    EXPECT_CALL(*backend, SetPermissions(0xfffffffful));
    handle.SetPermissions(0xfffffffful);
    EXPECT_CALL(*backend, UpdateFileStatus());
    handle.UpdateFileStatus();
}

TEST_F(FileHandleForwardingTest, HandsOverStreams) {
    Mode const mode = std::ios_base::ate | std::ios_base::binary;
    auto input = std::make_unique<std::istringstream>("text");
    std::istream const* const expectedInput = input.get();
    EXPECT_CALL(*backend, CreateInputStream(mode)).WillOnce(Return(ByMove(std::move(input))));
    EXPECT_EQ(handle.CreateInputStream(mode).get(), expectedInput);
    auto output = std::make_unique<std::ostringstream>();
    std::ostream const* const expectedOutput = output.get();
    EXPECT_CALL(*backend, CreateOutputStream(mode)).WillOnce(Return(ByMove(std::move(output))));
    EXPECT_EQ(handle.CreateOutputStream(mode).get(), expectedOutput);
    EXPECT_CALL(*backend, CreateInputStream(Mode())).WillOnce(Return(ByMove(nullptr)));
    EXPECT_THAT(handle.CreateInputStream(Mode()), IsNull());
    EXPECT_CALL(*backend, CreateOutputStream(Mode())).WillOnce(Return(ByMove(nullptr)));
    EXPECT_THAT(handle.CreateOutputStream(Mode()), IsNull());
}

TEST_F(FileHandleForwardingTest, AsksForNothingButThePathInPathOperations) {
    // The strict back end fails the test if its own Open() is called.
    EXPECT_CALL(*backend, Path()).WillRepeatedly(Return("/d/name.x"));
    EXPECT_EQ(handle.Path().Path(), "/d/name.x");
    EXPECT_EQ(handle.FileName(), "name.x");
    EXPECT_EQ(handle.ParentDirectory().Path().Path(), "/d");
    EXPECT_EQ(handle.Open("x").Path().Path(), "/d/name.x/x");
    EXPECT_EQ(handle.Open(FilePath("x")).Path().Path(), "/d/name.x/x");
    EXPECT_EQ(handle.Begin(), handle.End());
}

TEST_F(FileHandleForwardingTest, BeginsToIterateOnTheBackEndsPath) {
    EXPECT_CALL(*backend, Path()).WillRepeatedly(Return("/proc/self/task"));
    FileIterator const first = handle.Begin();
    EXPECT_EQ((*first).DirectoryPath(), "/proc/self/task/");
    EXPECT_EQ(FileIteratorTestPeer::backendOf(first)->Path(), "/proc/self/task");
}

TEST_F(FileHandleForwardingTest, IsCopiedOntoAPosixBackEnd) {
    EXPECT_CALL(*backend, Path()).WillRepeatedly(Return("/tmp//x/"));
    FileHandle const copy(handle);
    EXPECT_TRUE(hasPosixBackend(copy));
    EXPECT_EQ(copy.Path().Path(), "/tmp//x/");
    FileHandle assigned("elsewhere");
    assigned = handle;
    EXPECT_TRUE(hasPosixBackend(assigned));
    EXPECT_EQ(assigned.Path().Path(), "/tmp//x/");
    EXPECT_EQ(FileHandleTestPeer::backendOf(handle), backend) << "the source keeps its own";
}

TEST_F(FileHandleForwardingTest, IsMovedByCopying) {
    EXPECT_CALL(*backend, Path()).WillRepeatedly(Return("/x"));
    FileHandle const moved(std::move(handle));
    EXPECT_EQ(FileHandleTestPeer::backendOf(handle), backend);
    EXPECT_EQ(moved.Path().Path(), "/x");
    FileHandle assigned("y");
    assigned = std::move(handle);
    EXPECT_EQ(FileHandleTestPeer::backendOf(handle), backend);
    EXPECT_EQ(assigned.Path().Path(), "/x");
}

TEST_F(FileHandleForwardingTest, SwapsTheNewBackEndInBeforeTheOldOneGoes) {
    EXPECT_CALL(*backend, destroyed()).WillOnce(Invoke([this] {
        FileHandleBackend const* const installed = FileHandleTestPeer::backendOf(handle);
        EXPECT_THAT(installed, NotNull());
        EXPECT_NE(installed, backend);
        EXPECT_EQ(handle.Path().Path(), "new");
    }));
    EXPECT_EQ(&(handle = FileHandle("new")), &handle);
    EXPECT_EQ(handle.Path().Path(), "new");
}

TEST_F(FileHandleForwardingTest, IsAssignedToItselfThroughANewBackEnd) {
    EXPECT_CALL(*backend, Path()).WillRepeatedly(Return("/self"));
    FileHandle const& same = handle;
    handle = same;
    EXPECT_TRUE(hasPosixBackend(handle));
    EXPECT_EQ(handle.Path().Path(), "/self");
}

TEST_F(FileHandleForwardingTest, KeepsItsBackEndWhenAnAssignmentFails) {
    EXPECT_CALL(*backend, Path()).WillOnce(Throw(std::bad_alloc()));
    FileHandle target("kept");
    FileHandleBackend const* const before = FileHandleTestPeer::backendOf(target);
    EXPECT_THROW(target = handle, std::bad_alloc);
    EXPECT_EQ(FileHandleTestPeer::backendOf(target), before);
    EXPECT_EQ(target.Path().Path(), "kept");
}

TEST_F(FileHandleForwardingTest, DestroysItsBackEndWithItself) {
    auto owned = std::make_unique<StrictMock<MockBackend>>();
    StrictMock<MockBackend>& owner = *owned;
    auto destroyed = std::make_unique<FileHandle>("unused");
    FileHandleTestPeer::install(*destroyed, std::move(owned));
    EXPECT_CALL(owner, destroyed());
    destroyed.reset();
}

}  // namespace
}  // namespace ovra::fs
