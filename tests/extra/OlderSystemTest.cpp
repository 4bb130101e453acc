// What a removal spares on systems before Linux 5.8, which do not say that something is a mount
// point.

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <string>

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
using ::testing::ElementsAre;

class OlderSystemTest : public TemporaryDirectoryTest {
protected:
    OlderSystemTest() {
        makeDirectory(at("t"));
        makeDirectory(at("t/d"));
        makeDirectory(at("t/d/point"));
    }

    Outcome remove() const {
        test::Intercepted calls;
        calls.hidesMounts = true;
        return removeTree(at("t"));
    }
};

TEST_F(OlderSystemTest, AMountPointOfTheSameDeviceIsNotCrossed) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeDirectory(at("outside"));
    writeFile(at("outside/f"));
    {
        Mounted const sameDevice(at("outside"), at("t/d/point"), nullptr, MS_BIND);
        EXPECT_EQ(remove(), Outcome::BUSY);
    }
    EXPECT_THAT(namesIn(at("outside")), ElementsAre("f"));
    EXPECT_EQ(remove(), Outcome::DONE);
}

TEST_F(OlderSystemTest, AnotherDeviceIsNotCrossedWhereTheDirectoryMayNotBeChanged) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    Mounted const otherDevice("other", at("t/d/point"), "tmpfs", 0, "mode=777");
    writeFile(at("t/d/point/f"));
    setPermissions(at("t"), 0777);
    setPermissions(at("t/d"), 0555);
    OrdinaryUser const user(root);
    // To remove the directory is denied before anybody looks at what is mounted on it.
    ASSERT_EQ(rmdir(at("t/d/point").c_str()), -1);
    if (errno != EACCES) {
        GTEST_SKIP() << "a user whom permissions do not concern";
    }
    EXPECT_EQ(remove(), Outcome::BUSY);
    EXPECT_THAT(namesIn(at("t/d/point")), ElementsAre("f"));
}

}  // namespace

}  // namespace ovra::extra
