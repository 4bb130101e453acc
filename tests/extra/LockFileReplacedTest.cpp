// What becomes of a lock whose file others delete or replace while it is being taken.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <ovra/extra/LockFile.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Contained.h>

#include <tests/extra/Intercepted.h>
#include <tests/extra/Mounted.h>

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

TEST_F(LockFileReplacedTest, AFileWithTheSameNumberOnAnotherDeviceIsAnother) {
    if (!ovra::test::hasOwnRoot()) {
        GTEST_SKIP() << "an ordinary user may not mount";
    }
    makeDirectory(at("one"));
    makeDirectory(at("two"));
    Mounted const one("one", at("one"), "tmpfs", 0);
    Mounted const two("two", at("two"), "tmpfs", 0);
    writeFile(at("one/lock"), "one");
    writeFile(at("two/lock"), "two");
    if (statusOf(at("one/lock")).st_ino != statusOf(at("two/lock")).st_ino) {
        GTEST_SKIP() << "file systems that number their files together";
    }
    makeLink("one/lock", at("lock"));
    Intercepted calls;
    int locks = 0;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "flock" && locks++ == 0) {
            EXPECT_EQ(unlink(at("lock").c_str()), 0);
            makeLink("two/lock", at("lock"));
        }
        return 0;
    };
    LockFile lock(at("lock"));
    EXPECT_EQ(lock.tryLock(), Outcome::DONE);
    calls.before = nullptr;
    EXPECT_TRUE(isHeld());
    EXPECT_EQ(readFile(at("one/lock")), "one");
    EXPECT_EQ(readFile(at("two/lock")), std::to_string(getpid()) + "\n");
}

TEST_F(LockFileReplacedTest, WhatWasLockedInVainIsFreeAlthoughAChildHasACopy) {
    writeFile(at("lock"));
    int end[2];
    ASSERT_EQ(pipe2(end, O_CLOEXEC), 0);
    pid_t child = -1;
    Intercepted calls;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "flock" && child < 0) {
            EXPECT_EQ(rename(at("lock").c_str(), at("old").c_str()), 0);
            child = fork();
            if (child == 0) {
                close(end[1]);
                char byte;
                _exit(read(end[0], &byte, 1) == 0 ? 0 : 1);  // Once the test is over.
            }
        }
        return 0;
    };
    LockFile lock(at("lock"));
    EXPECT_EQ(lock.tryLock(), Outcome::DONE);
    calls.before = nullptr;
    LockFile old(at("old"));
    EXPECT_EQ(old.tryLock(), Outcome::DONE);
    close(end[1]);
    close(end[0]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(LockFileReplacedTest, LooksAgainAtWhatItHasOpenedAndNeverWaits) {
    for (int const opened : {1, 2}) {  // For writing, or then for reading.
        writeFile(at("lock"));
        Intercepted calls;
        calls.before = [&](SystemCall const& call) {
            if (call.name != "openat" || calls.count("openat") > 0) {
                return 0;
            }
            unlink(at("lock").c_str());
            makePipe(at("lock"));
            return opened == 1 ? 0 : EACCES;
        };
        LockFile lock(at("lock"));
        EXPECT_EQ(lock.tryLock(), Outcome::WRONG_KIND);
        EXPECT_EQ(calls.count("openat"), opened);
        EXPECT_EQ(calls.count("flock"), 0);
        unlink(at("lock").c_str());
    }
}

TEST_F(LockFileReplacedTest, SaysWhyThePathCouldNotBeLookedAtAndNotWhyUnlockingFailed) {
    Intercepted calls;
    calls.before = [&](SystemCall const& call) {
        if (call.name != "flock") {
            return 0;
        }
        if ((call.flags & LOCK_UN) != 0) {
            return EINTR;
        }
        unlink(at("lock").c_str());
        makeLink("lock", at("lock"));  // To itself.
        return 0;
    };
    LockFile lock(at("lock"));
    ASSERT_NE(outcomeOf(ELOOP), outcomeOf(EINTR));
    EXPECT_EQ(lock.tryLock(), outcomeOf(ELOOP));
    EXPECT_EQ(calls.count("flock"), 2);
}

TEST_F(LockFileReplacedTest, AFileThatCannotBeOpenedForWritingIsOpenedForReading) {
    for (int const error : {EACCES, EPERM, EROFS}) {
        for (bool const isThere : {true, false}) {
            Intercepted calls;
            calls.before = [&](SystemCall const& call) {
                bool const isForWriting = (call.flags & O_ACCMODE) == O_RDWR;
                return call.name == "openat" && isForWriting ? error : 0;
            };
            writeFile(at("lock"));
            if (!isThere) {
                ASSERT_EQ(unlink(at("lock").c_str()), 0);
            }
            LockFile lock(at("lock"));
            EXPECT_EQ(lock.tryLock(), isThere ? Outcome::DONE : outcomeOf(error)) << error;
            EXPECT_EQ(calls.count("openat"), 2);
        }
    }
}

TEST_F(LockFileReplacedTest, UnlockKeepsErrnoWhateverFails) {
    LockFile lock(at("lock"));
    EXPECT_EQ(lock.tryLock(), Outcome::DONE);
    Intercepted calls;
    calls.before = [](SystemCall const&) { return EIO; };
    errno = EDOM;
    lock.unlock();
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(calls.count("flock"), 1);
    EXPECT_EQ(calls.count("close"), 1);
    EXPECT_FALSE(lock.isLocked());
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
