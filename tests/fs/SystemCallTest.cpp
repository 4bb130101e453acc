#include <tests/fs/SystemCallTest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <ios>
#include <string>
#include <vector>

#include <pthread.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>

#include <tests/fs/FileTest.h>

namespace ovra::fs {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using test::Calls;
using test::namesIn;
using test::patternlessBytes;
using test::readFile;
using test::statusOf;
using test::SystemCalls;
using test::SystemCallTest;
using test::withoutReading;
using test::WorkingDirectory;
using test::writeFile;

TEST_F(SystemCallTest, NeedsNoneForPaths) {
    SystemCalls calls(root);
    FilePath path(at("f"));
    path.Cache();
    EXPECT_EQ(path.Resolve("../x").Resolved(), at("x"));
    path.SetPath(at("link"));
    EXPECT_TRUE(path.IsAbsolute());
    EXPECT_EQ(path.Resolved(), at("link")) << "it is not followed";
    EXPECT_EQ(FilePath("link").Resolved(), "link");
    EXPECT_TRUE(FilePath("link").IsRelative());
    EXPECT_THAT(calls.take(), IsEmpty());
}

TEST_F(SystemCallTest, NeedsNoneToMakeCopyAndNameHandles) {
    SystemCalls calls(root);
    FileHandle handle(at("f"));
    FileHandle const copy(handle);
    handle = copy;
    EXPECT_EQ(handle.Path().Path(), at("f"));
    EXPECT_EQ(handle.FileName(), "f");
    EXPECT_EQ(handle.ParentDirectory().Path().Path(), root);
    EXPECT_EQ(handle.Open("x").Path().Path(), at("f/x"));
    EXPECT_EQ(handle.Open(FilePath("x")).Path().Path(), at("f/x"));
    EXPECT_EQ(handle.End(), FileIterator());
    handle.UpdateFileStatus();
    FileHandleBackendImpl const backend(at("f"));
    EXPECT_EQ(backend.Path(), at("f"));
    EXPECT_EQ(backend.Open("x"), nullptr);
    EXPECT_THAT(calls.take(), IsEmpty());
}

struct Query {
    char const* name;
    std::function<void(FileHandle const&)> ask;
};

std::vector<Query> const& queries() {
    static std::vector<Query> const list = {
        {"Exists", [](FileHandle const& handle) { handle.Exists(); }},
        {"IsFile", [](FileHandle const& handle) { handle.IsFile(); }},
        {"IsDirectory", [](FileHandle const& handle) { handle.IsDirectory(); }},
        {"IsSymbolicLink", [](FileHandle const& handle) { handle.IsSymbolicLink(); }},
        {"Size", [](FileHandle const& handle) { handle.Size(); }},
        {"ModificationTime", [](FileHandle const& handle) { handle.ModificationTime(); }},
        {"UserId", [](FileHandle const& handle) { handle.UserId(); }},
        {"GroupId", [](FileHandle const& handle) { handle.GroupId(); }},
        {"Permissions", [](FileHandle const& handle) { handle.Permissions(); }},
    };
    return list;
}

TEST_F(SystemCallTest, ReadsTheStatusOnceForEveryQuery) {
    struct Row {
        std::string path;
        Calls calls;
    };
    for (Row const& row : std::vector<Row>{{"f", {"lstat f"}},
                                           {"d", {"lstat d"}},
                                           {"missing", {"lstat missing"}},
                                           {"link", {"lstat link", "stat link"}},
                                           {"link-to-d", {"lstat link-to-d", "stat link-to-d"}},
                                           {"dangling", {"lstat dangling", "stat dangling"}}}) {
        FileHandle const handle(at(row.path));
        SystemCalls calls(root);
        for (Query const& query : queries()) {
            // Twice: a status already read saves nothing.
            query.ask(handle);
            EXPECT_THAT(calls.take(), ElementsAreArray(row.calls)) << query.name;
            query.ask(handle);
            EXPECT_THAT(calls.take(), ElementsAreArray(row.calls)) << query.name << ", again";
        }
    }
}

TEST_F(SystemCallTest, TakesAnyFailureToReadTheStatusForAMissingEntry) {
    for (int const error : {EACCES, ENOENT, ENOTDIR, ELOOP, EIO, ENOMEM, EOVERFLOW}) {
        for (std::string const failing : {"lstat link", "stat link"}) {
            SystemCalls calls(root);
            FileHandle const handle(at("link"));
            EXPECT_TRUE(handle.IsFile());
            calls.intercept = [&](std::string const& call) { return call == failing ? error : 0; };
            EXPECT_FALSE(handle.Exists()) << failing << ": " << error;
            EXPECT_FALSE(handle.IsFile());
            EXPECT_FALSE(handle.IsDirectory());
            EXPECT_FALSE(handle.IsSymbolicLink());
            EXPECT_EQ(handle.Size(), 0);
            EXPECT_EQ(handle.ModificationTime(), 0);
            EXPECT_EQ(handle.UserId(), 0u);
            EXPECT_EQ(handle.GroupId(), 0u);
            EXPECT_EQ(handle.Permissions(), 0u);
            calls.intercept = nullptr;
            EXPECT_TRUE(handle.IsSymbolicLink()) << "and comes back with the entry";
        }
    }
}

TEST_F(SystemCallTest, SetsPermissionsInOneCall) {
    SystemCalls calls(root);
    FileHandle(at("f")).SetPermissions(04755);
    EXPECT_THAT(calls.take(), ElementsAre("chmod 0755 f"));
    FileHandle(at("link")).SetPermissions(0);
    EXPECT_THAT(calls.take(), ElementsAre("chmod 0000 link"));
    FileHandle(at("missing")).SetPermissions(~0ul);
    EXPECT_THAT(calls.take(), ElementsAre("chmod 0777 missing"));
}

TEST_F(SystemCallTest, ReadsTheOtherIdFreshBeforeItSetsOne) {
    struct stat const status = statusOf(at("f"));
    std::string const user = std::to_string(status.st_uid);
    std::string const group = std::to_string(status.st_gid);
    SystemCalls calls(root);
    // Nothing is to change on the disk.
    calls.intercept = [](std::string const& call) { return call[0] == 'c' ? EPERM : 0; };
    FileHandle(at("f")).SetUserId(4000000000u);
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "chown 4000000000:" + group + " f"));
    FileHandle(at("f")).SetGroupId(4000000000u);
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "chown " + user + ":4000000000 f"));
    FileHandle(at("link")).SetUserId(7);
    EXPECT_THAT(calls.take(), ElementsAre("lstat link", "stat link", "chown 7:" + group + " link"));
    FileHandle(at("link")).SetGroupId(7);
    EXPECT_THAT(calls.take(), ElementsAre("lstat link", "stat link", "chown " + user + ":7 link"));
}

TEST_F(SystemCallTest, PassesZeroForTheOtherIdOfAnEntryThatCannotBeRead) {
    SystemCalls calls(root);
    FileHandle(at("missing")).SetUserId(7);
    FileHandle(at("missing")).SetGroupId(7);
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing", "chown 7:0 missing", "lstat missing",
                                          "chown 0:7 missing"));
    calls.intercept = [](std::string const& call) { return call[0] == 'l' ? EACCES : EPERM; };
    FileHandle(at("f")).SetUserId(7);
    FileHandle(at("f")).SetGroupId(7);
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "chown 7:0 f", "lstat f", "chown 0:7 f"));
}

TEST_F(SystemCallTest, CreatesDirectories) {
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("new")).CreateDirectory());
    EXPECT_THAT(calls.take(), ElementsAre("lstat new", "mkdir 0775 new"));
    EXPECT_FALSE(FileHandle(at("d")).CreateDirectory());
    EXPECT_THAT(calls.take(), ElementsAre("lstat d")) << "nothing is tried where something is";
    EXPECT_FALSE(FileHandle(at("dangling")).CreateDirectory());
    EXPECT_THAT(calls.take(),
                ElementsAre("lstat dangling", "stat dangling", "mkdir 0775 dangling"));
    calls.intercept = [](std::string const& call) { return call[0] == 'm' ? ENOSPC : 0; };
    EXPECT_FALSE(FileHandle(at("other")).CreateDirectory());
}

TEST_F(SystemCallTest, RemovesThroughOneCall) {
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("d")).RemoveDirectory());
    EXPECT_THAT(calls.take(), ElementsAre("lstat d", "remove d"));
    EXPECT_TRUE(FileHandle(at("missing")).RemoveDirectory());
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing"));
    EXPECT_TRUE(FileHandle(at("dangling")).RemoveDirectory());
    EXPECT_THAT(calls.take(), ElementsAre("lstat dangling", "stat dangling"));
    EXPECT_TRUE(FileHandle(at("link")).Remove());
    EXPECT_THAT(calls.take(), ElementsAre("lstat link", "stat link", "remove link"));
    EXPECT_TRUE(FileHandle(at("f")).Remove());
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "remove f"));
}

TEST_F(SystemCallTest, AsksForALinkOnlyAfterAFileBeforeItRemoves) {
    SystemCalls calls(root);
    EXPECT_FALSE(FileHandle(at("d")).Remove());
    EXPECT_THAT(calls.take(), ElementsAre("lstat d", "lstat d"));
    EXPECT_FALSE(FileHandle(at("missing")).Remove());
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing", "lstat missing"));
    EXPECT_TRUE(FileHandle(at("link-to-d")).Remove());
    EXPECT_THAT(calls.take(), ElementsAre("lstat link-to-d", "stat link-to-d", "lstat link-to-d",
                                          "stat link-to-d", "remove link-to-d"));
}

TEST_F(SystemCallTest, ReportsARefusedRemoval) {
    SystemCalls calls(root);
    calls.intercept = [](std::string const& call) { return call[0] == 'r' ? EBUSY : 0; };
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectory());
    EXPECT_FALSE(FileHandle(at("f")).Remove());
    EXPECT_FALSE(FileHandle(at("link-to-d")).Remove());
}

TEST_F(SystemCallTest, MovesThroughOneRename) {
    SystemCalls calls(root);
    FileHandle target(at("new"));
    EXPECT_TRUE(FileHandle(at("f")).Move(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "lstat new", "rename f new"));
    FileHandle directory(root + "//d/");
    EXPECT_TRUE(target.Move(directory));
    EXPECT_THAT(calls.take(), ElementsAre("lstat new", "lstat /d/", "rename new d/new"));
    EXPECT_FALSE(FileHandle(at("missing")).Move(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing")) << "the target is not even looked at";
    calls.intercept = [](std::string const& call) { return call[0] == 'r' ? EXDEV : 0; };
    EXPECT_FALSE(FileHandle(at("d/new")).Move(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat d/new", "lstat new", "rename d/new new"))
        << "and nothing is tried instead";
}

TEST_F(SystemCallTest, RenamesWithADoubledSeparator) {
    SystemCalls calls(root);
    EXPECT_TRUE(FileHandle(at("d")).Rename("e"));
    EXPECT_THAT(calls.take(), ElementsAre("lstat d", "rename d /e"));
    EXPECT_FALSE(FileHandle(at("missing")).Rename("e"));
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing"));
}

TEST_F(SystemCallTest, RenamesARelativePathOfOneComponentIntoTheRoot) {
    WorkingDirectory const here(root);
    SystemCalls calls(root);
    // The root must not really change, whoever runs this.
    calls.intercept = [](std::string const& call) { return call[0] == 'r' ? EACCES : 0; };
    FileHandle handle("f");
    EXPECT_FALSE(handle.Rename("g"));
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "rename f /g"));
    EXPECT_EQ(handle.Path().Path(), "f");
}

TEST_F(SystemCallTest, LinksToTheStoredPath) {
    SystemCalls calls(root);
    FileHandle target(at("new"));
    EXPECT_TRUE(FileHandle(root + "/./f").CreateSymbolicLink(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat ./f", "lstat new", "symlink ./f new"));
    FileHandle directory(root + "//d/");
    EXPECT_TRUE(FileHandle(at("f")).CreateSymbolicLink(directory));
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "lstat /d/", "symlink f d/f"))
        << "the full path inside a directory";
    FileHandle stored(root + "//other");
    EXPECT_TRUE(FileHandle(at("f")).CreateSymbolicLink(stored));
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "lstat /other", "symlink f /other"))
        << "the stored path at the target";
    EXPECT_FALSE(FileHandle(at("missing")).CreateSymbolicLink(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing"));
    EXPECT_FALSE(FileHandle(at("dangling")).CreateSymbolicLink(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat dangling", "stat dangling"));
}

TEST_F(SystemCallTest, CopiesThroughTwoBinaryStreams) {
    SystemCalls calls(root);
    FileHandle target(at("new"));
    calls.intercept = nullptr;
    EXPECT_TRUE(FileHandle(at("f")).Copy(target));
    Calls opening = calls.take();
    opening.erase(std::remove(opening.begin(), opening.end(), "read"), opening.end());
    EXPECT_THAT(opening, ElementsAre("lstat f", "lstat new", "open f rb", "open new wb"));
    FileHandle directory(root + "//d/");
    EXPECT_TRUE(FileHandle(at("link")).Copy(directory));
    opening = calls.take();
    opening.erase(std::remove(opening.begin(), opening.end(), "read"), opening.end());
    EXPECT_THAT(opening, ElementsAre("lstat link", "stat link", "lstat /d/", "open link rb",
                                     "open d/link wb"));
    EXPECT_FALSE(FileHandle(at("d")).Copy(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat d"));
    EXPECT_FALSE(FileHandle(at("missing")).Copy(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat missing"));
}

TEST_F(SystemCallTest, OpensTheTargetOfACopyEvenWhenTheSourceCannotBeOpened) {
    SystemCalls calls(root);
    FileHandle target(at("new"));
    calls.intercept = [](std::string const& call) { return call == "open f rb" ? EACCES : 0; };
    EXPECT_FALSE(FileHandle(at("f")).Copy(target));
    EXPECT_THAT(calls.take(), ElementsAre("lstat f", "lstat new", "open f rb", "open new wb"));
    EXPECT_EQ(readFile(at("new")), "");
    calls.intercept = [](std::string const& call) { return call == "open new wb" ? EACCES : 0; };
    EXPECT_FALSE(FileHandle(at("f")).Copy(target));
}

TEST_F(SystemCallTest, CopiesLargeFilesInLargePieces) {
    writeFile(at("large"), patternlessBytes(1 << 20));
    SystemCalls calls(root);
    FileHandle target(at("new"));
    EXPECT_TRUE(FileHandle(at("large")).Copy(target));
    EXPECT_GE(calls.count("read"), 1) << "or nothing is counted";
    EXPECT_LE(calls.count("read"), 20);
}

TEST_F(SystemCallTest, CopiesAFileOfUpToSixtyFourKibibytesInOnePiece) {
    for (std::size_t const size : {1u, 4095u, 4096u, 4097u, 65535u, 65536u, 65537u}) {
        writeFile(at("f"), patternlessBytes(size));
        FileHandle target(at("new"));
        SystemCalls calls(root);
        EXPECT_TRUE(FileHandle(at("f")).Copy(target));
        // The last finds the end.
        EXPECT_EQ(calls.count("read"), size <= 65536 ? 2 : 3) << size;
    }
}

TEST_F(SystemCallTest, SaysTrueWhenTheSourceOfACopyCannotBeReadThrough) {
    writeFile(at("new"), "something longer than the contents");
    SystemCalls calls(root);
    FileHandle target(at("new"));
    calls.intercept = [](std::string const& call) { return call == "read" ? EIO : 0; };
    EXPECT_TRUE(FileHandle(at("f")).Copy(target));
    calls.intercept = nullptr;
    EXPECT_EQ(readFile(at("new")), "");
}

// If the stream kept the last piece until it is destroyed, the process would end.
TEST_F(SystemCallTest, ThreadThatIsCancelledAsItWritesACopyEndsAlone) {
    auto const copy = [](void* directory) -> void* {
        std::string const& parent = *static_cast<std::string const*>(directory);
        SystemCalls calls(parent);
        calls.onWrite = [] { pthread_cancel(pthread_self()); };
        FileHandle target(parent + "/new");
        FileHandle(parent + "/f").Copy(target);
        return nullptr;
    };
    std::string parent = root;
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(&thread, nullptr, copy, &parent), 0);
    void* end = nullptr;
    ASSERT_EQ(pthread_join(thread, &end), 0);

    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(readFile(at("new")), "");
}

TEST_F(SystemCallTest, OpensStreamsWithoutReadingTheStatus) {
    SystemCalls calls(root);
    FileHandle const handle(at("f"));
    EXPECT_TRUE(handle.CreateInputStream(NO_MODE)->good());
    EXPECT_TRUE(handle.CreateInputStream(std::ios_base::binary)->good());
    EXPECT_TRUE(handle.CreateOutputStream(std::ios_base::app)->good());
    EXPECT_TRUE(handle.CreateOutputStream(std::ios_base::in)->good());
    EXPECT_TRUE(handle.CreateOutputStream(std::ios_base::binary)->good());
    EXPECT_TRUE(handle.CreateOutputStream(NO_MODE)->good());
    EXPECT_THAT(calls.take(), ElementsAre("open f r", "open f rb", "open f a", "open f r+",
                                          "open f wb", "open f w"));
}

TEST_F(SystemCallTest, ListsADirectoryInOnePass) {
    writeFile(at("d/a"));
    writeFile(at("d/b"));
    SystemCalls calls(root);
    EXPECT_THAT(FileHandle(at("d")).ListDirectory(), UnorderedElementsAre("a", "b"));
    // ".", "..", two entries and the end.
    EXPECT_THAT(calls.take(), ElementsAre("opendir d", "readdir", "readdir", "readdir", "readdir",
                                          "readdir", "closedir"));
    EXPECT_THAT(FileHandle(at("f")).ListDirectory(), IsEmpty());
    EXPECT_THAT(calls.take(), ElementsAre("opendir f")) << "the type is not asked first";
}

TEST_F(SystemCallTest, IteratesInOnePassAndReadsNothingAfterTheEnd) {
    writeFile(at("d/a"));
    SystemCalls calls(root);
    {
        FileIterator iterator(at("d"));
        while (iterator != FileIterator()) {
            ++iterator;
        }
        EXPECT_THAT(calls.take(),
                    ElementsAre("opendir d", "readdir", "readdir", "readdir", "readdir"));
        ++iterator;
        ++iterator;
        EXPECT_EQ((*iterator).Path(), at("d/"));
        EXPECT_THAT(calls.take(), IsEmpty());
    }
    EXPECT_THAT(calls.take(), ElementsAre("closedir"));
    {
        FileIterator unopened(at("missing"));
        ++unopened;
    }
    EXPECT_THAT(calls.take(), ElementsAre("opendir missing"));

    FileHandle(at("d/a")).Remove();
    FileIterator empty(at("d"));
    calls.take();
    ++empty;
    EXPECT_THAT(calls.take(), IsEmpty());
}

TEST_F(SystemCallTest, OpensTheNewDirectoryBeforeItClosesTheOld) {
    writeFile(at("d/a"));
    SystemCalls calls(root);
    FileIterator const source(at("d"));
    FileIterator target(root);
    calls.take();
    target = source;
    EXPECT_THAT(withoutReading(calls.take()), ElementsAre("opendir d/", "closedir"));
}

TEST_F(SystemCallTest, TakesAFailedReadForTheEnd) {
    for (char const* const name : {"d/a", "d/b", "d/c"}) {
        writeFile(at(name));
    }
    std::string const first = namesIn(at("d"))[0];
    SystemCalls calls(root);
    bool found = false;
    bool failed = false;
    // Fails at the first read after the first entry.
    calls.intercept = [&](std::string const& call) {
        failed = call == "readdir" && found;
        return failed ? EIO : 0;
    };
    FileIteratorBackendImpl backend(at("d"));
    EXPECT_EQ(backend.Name(), first);
    found = true;
    backend.Next();
    EXPECT_TRUE(failed);
    EXPECT_FALSE(backend.Valid());
    EXPECT_EQ(backend.Index(), 1);
    calls.intercept = nullptr;
    backend.Next();
    EXPECT_FALSE(backend.Valid()) << "there is no way back";
    EXPECT_EQ(backend.Index(), 2);
}

TEST_F(SystemCallTest, ClosesADirectoryWhoseReadFails) {
    writeFile(at("d/a"));
    SystemCalls calls(root);
    calls.intercept = [](std::string const& call) { return call == "readdir" ? EIO : 0; };
    EXPECT_THAT(FileHandle(at("d")).ListDirectory(), IsEmpty());
    EXPECT_THAT(calls.take(), ElementsAre("opendir d", "readdir", "closedir"));
    EXPECT_FALSE(FileHandle(at("d")).RemoveDirectoryRecursive());
    EXPECT_EQ(calls.count("opendir"), calls.count("closedir"));
}

}  // namespace
}  // namespace ovra::fs
