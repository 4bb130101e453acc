// What becomes of a lock whose file others delete or replace while it is being taken.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <ovra/extra/LockFile.h>
#include <tests/fs/TemporaryDirectory.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;

class LockFileReplacedTest : public TemporaryDirectoryTest {
protected:
    // Whether somebody holds the lock of the file that is there now.
    bool isHeld() const {
        int const file = open(at("lock").c_str(), O_RDONLY | O_CLOEXEC);
        bool const isFree = flock(file, LOCK_EX | LOCK_NB) == 0;
        close(file);
        return !isFree;
    }
};

TEST_F(LockFileReplacedTest, LocksTheFileThatThePathNames) {
    for (bool const isReplaced : {false, true}) {
        writeFile(at("lock"));
        Intercepted calls;
        int locks = 0;
        calls.before = [&](SystemCall const& call) {
            if (call.name == "flock" && locks++ == 0) {
                EXPECT_EQ(unlink(at("lock").c_str()), 0);
                if (isReplaced) {
                    writeFile(at("lock"));
                }
            }
            return 0;
        };
        LockFile lock(at("lock"));
        EXPECT_EQ(lock.tryLock(), Outcome::DONE);
        calls.before = nullptr;
        EXPECT_TRUE(isHeld());
        EXPECT_EQ(readFile(at("lock")), std::to_string(getpid()) + "\n");
        lock.unlock();
        EXPECT_FALSE(isHeld());
    }
}

TEST_F(LockFileReplacedTest, GivesUpOnAFileThatIsReplacedForEver) {
    Intercepted calls;
    int locks = 0;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "flock" && (call.flags & LOCK_UN) == 0) {
            ++locks;
            EXPECT_EQ(unlink(at("lock").c_str()), 0);
        }
        return 0;
    };
    LockFile lock(at("lock"));
    EXPECT_EQ(lock.tryLock(), Outcome::BUSY);
    EXPECT_FALSE(lock.isLocked());
    calls.before = nullptr;
    EXPECT_EQ(locks, 100);
}

TEST_F(LockFileReplacedTest, OpensCloseOnExecAndNeverWaits) {
    Intercepted calls;
    LockFile lock(at("lock"));
    EXPECT_EQ(lock.tryLock(), Outcome::DONE);
    for (SystemCall const& call : calls.calls()) {
        if (call.name == "openat") {
            EXPECT_NE(call.flags & O_CLOEXEC, 0);
            EXPECT_NE(call.flags & O_NONBLOCK, 0);
        }
        if (call.name == "flock") {
            EXPECT_NE(call.flags & LOCK_NB, 0);
        }
    }
    EXPECT_EQ(calls.count("flock"), 1);
}

}  // namespace

}  // namespace ovra::extra
