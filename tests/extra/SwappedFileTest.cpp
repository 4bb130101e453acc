// What replaceFile and syncFile do where others put something else in the place of an entry between
// two of their calls.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/extra/ReplaceFile.h>
#include <tests/fs/TemporaryDirectory.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;
using ::testing::ElementsAre;

class SwappedFileTest : public TemporaryDirectoryTest {
protected:
    // A directory such as /tmp, in which another user has made the link "link" to `contents`.
    void makeShared(std::string const& contents) {
        makeDirectory(at("shared"));
        makeLink(contents, at("shared/link"));
        ASSERT_EQ(lchown(at("shared/link").c_str(), 1234, 1234), 0);
        setPermissions(at("shared"), 01777);
    }
};

TEST_F(SwappedFileTest, TheLinkOfAnotherUserInASharedDirectoryIsNotFollowed) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "an ordinary user may not give links away";
    }
    writeFile(at("target"), "old");
    makeShared("../target");
    EXPECT_EQ(replaceFile(at("shared/link"), "new"), Outcome::DENIED);
    ASSERT_EQ(unlink(at("target").c_str()), 0);
    EXPECT_EQ(replaceFile(at("shared/link"), "new"), Outcome::DENIED);
    EXPECT_FALSE(entryExists(at("target")));
}

// The system would follow what lies there when it is asked, and not what is read then.
TEST_F(SwappedFileTest, TheLinkOfAnotherUserIsNotFollowedWhateverLiesThereMeanwhile) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "an ordinary user may not give links away";
    }
    for (bool const isDangling : {false, true}) {
        makeShared("../target");
        if (!isDangling) {
            writeFile(at("target"), "old");
            writeFile(at("shared/other"));
        }
        Intercepted calls;
        calls.before = [&](SystemCall const& call) {
            if (call.name == "fstatat" && call.path == "link" &&
                (call.flags & AT_SYMLINK_NOFOLLOW) == 0) {
                rename(at("shared/link").c_str(), at("shared/kept").c_str());
                rename(at("shared/other").c_str(), at("shared/link").c_str());
            } else if (call.name == "readlinkat") {
                rename(at("shared/link").c_str(), at("shared/other").c_str());
                rename(at("shared/kept").c_str(), at("shared/link").c_str());
            }
            return 0;
        };
        EXPECT_EQ(replaceFile(at("shared/link"), "new"), Outcome::DENIED);
        calls.before = nullptr;
        EXPECT_EQ(entryExists(at("target")), !isDangling);
        if (!isDangling) {
            EXPECT_EQ(readFile(at("target")), "old");
        }
        for (char const* const name : {"target", "shared/link", "shared/kept", "shared/other"}) {
            unlink(at(name).c_str());
        }
        ASSERT_EQ(rmdir(at("shared").c_str()), 0);
    }
}

TEST_F(SwappedFileTest, LinksThatNobodyElseCanSwapAreFollowed) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "an ordinary user may not give links away";
    }
    struct Row {
        uid_t link;
        uid_t directory;
        mode_t mode;
    };
    for (Row const& row :
         {Row{0, 1234, 01777}, {1234, 1234, 01777}, {1234, 0, 01755}, {1234, 0, 0777}}) {
        writeFile(at("target"), "old");
        makeShared("../target");
        ASSERT_EQ(lchown(at("shared/link").c_str(), row.link, 0), 0);
        ASSERT_EQ(chown(at("shared").c_str(), row.directory, 0), 0);
        setPermissions(at("shared"), row.mode);
        EXPECT_EQ(replaceFile(at("shared/link"), "new"), Outcome::DONE) << row.mode;
        EXPECT_EQ(readFile(at("target")), "new");
        ASSERT_EQ(unlink(at("shared/link").c_str()), 0);
        ASSERT_EQ(rmdir(at("shared").c_str()), 0);
    }
}

TEST_F(SwappedFileTest, SyncLooksAgainAtWhatItHasOpenedAndNeverWaits) {
    for (int const opened : {1, 2}) {  // For reading, or then for writing.
        writeFile(at("f"));
        Intercepted calls;
        calls.before = [&](SystemCall const& call) {
            if (call.name != "openat" || calls.count("openat") > 0) {
                return 0;
            }
            EXPECT_NE(call.flags & O_CLOEXEC, 0);
            unlink(at("f").c_str());
            makePipe(at("f"));
            return opened == 1 ? 0 : EACCES;
        };
        EXPECT_EQ(syncFile(at("f")), Outcome::WRONG_KIND);
        EXPECT_EQ(calls.count("openat"), opened);
        EXPECT_EQ(calls.count("fsync"), 0);
        calls.before = nullptr;
        unlink(at("f").c_str());
    }
}

}  // namespace

}  // namespace ovra::extra
