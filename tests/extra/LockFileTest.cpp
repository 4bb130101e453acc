#include <ovra/extra/LockFile.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <tests/fs/TemporaryDirectory.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;

/// A child process that runs `body` and then waits until the test ends it.
class Child {
public:
    explicit Child(std::function<void()> const& body) {
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(end, O_CLOEXEC), 0);
        id = fork();
        if (id == 0) {
            close(end[1]);
            body();
            bool const hasFailed = ::testing::Test::HasFailure();
            close(ready[1]);
            char byte;
            [[maybe_unused]] ssize_t const ignored = read(end[0], &byte, 1);
            _exit(hasFailed ? 1 : 0);
        }
        close(ready[1]);
        close(end[0]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);  // The end of the pipe: it is ready.
    }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;
    ~Child() {
        if (id > 0) {
            finish();
        }
    }

    void kill() {
        ::kill(id, SIGKILL);
        finish();
        EXPECT_TRUE(WIFSIGNALED(status));
    }
    void finish() {
        close(end[1]);
        EXPECT_EQ(waitpid(id, &status, 0), id);
        EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0);
        close(ready[0]);
        id = -1;
    }

private:
    int ready[2];
    int end[2];
    pid_t id;
    int status = 0;
};

class LockFileTest : public TemporaryDirectoryTest {
protected:
    // Also: `errno` is kept.
    static Outcome tryLock(LockFile& lock) {
        errno = EDOM;
        Outcome const outcome = lock.tryLock();
        EXPECT_EQ(errno, EDOM);
        EXPECT_EQ(lock.isLocked(), outcome == Outcome::DONE);
        return outcome;
    }

    Outcome tryByAnother() const {
        LockFile other(at("lock"));
        return tryLock(other);
    }
};

TEST_F(LockFileTest, OneObjectAtATimeHoldsTheLock) {
    LockFile lock(at("lock"));
    EXPECT_FALSE(lock.isLocked());
    EXPECT_FALSE(entryExists(at("lock")));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    errno = EDOM;
    lock.unlock();
    EXPECT_EQ(errno, EDOM);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
}

TEST_F(LockFileTest, TheDestructorGivesTheLockBackAndTheFileStays) {
    {
        LockFile lock(at("lock"));
        EXPECT_EQ(tryLock(lock), Outcome::DONE);
    }
    EXPECT_TRUE(entryExists(at("lock")));
    EXPECT_EQ(permissionsOf(at("lock")), 0644u);
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

// To cancel a thread in a destructor would end the process.
TEST_F(LockFileTest, AThreadThatIsToBeCancelledGivesTheLockBack) {
    auto const lockAndCancel = [](void* file) -> void* {
        {
            LockFile lock(*static_cast<fs::FilePath const*>(file));
            EXPECT_EQ(lock.tryLock(), Outcome::DONE);
            pthread_cancel(pthread_self());
        }
        pthread_testcancel();
        return nullptr;
    };
    fs::FilePath file(at("lock"));
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, lockAndCancel, &file), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

TEST_F(LockFileTest, ANewFileMayBeReadByAllAndWrittenByItsOwnerLessTheUmask) {
    for (mode_t const mask : {0000u, 0022u, 0077u}) {
        LockFile lock(at("lock"));
        umask(mask);
        EXPECT_EQ(tryLock(lock), Outcome::DONE);
        umask(022);
        EXPECT_EQ(permissionsOf(at("lock")), 0644u & ~mask) << mask;
        ASSERT_EQ(unlink(at("lock").c_str()), 0);
    }
}

TEST_F(LockFileTest, HoldsTheIdOfTheProcessAndNothingOfWhatWasThere) {
    writeFile(at("lock"), "something longer than the id of any process");
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_EQ(readFile(at("lock")), std::to_string(getpid()) + "\n");
}

TEST_F(LockFileTest, AnotherProcessFindsItHeld) {
    Child holder([this] {
        static LockFile lock(at("lock"));
        EXPECT_EQ(tryLock(lock), Outcome::DONE);
    });
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    holder.finish();
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

TEST_F(LockFileTest, GoesWithAProcessThatIsKilled) {
    Child holder([this] {
        static LockFile lock(at("lock"));
        EXPECT_EQ(tryLock(lock), Outcome::DONE);
    });
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    holder.kill();
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

TEST_F(LockFileTest, AForkedChildLeavesTheParentsLock) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    Child child([&] {
        EXPECT_FALSE(lock.isLocked());
        EXPECT_EQ(tryLock(lock), Outcome::BUSY);
        lock.unlock();
        EXPECT_FALSE(lock.isLocked());
        EXPECT_EQ(tryByAnother(), Outcome::BUSY);
        lock.~LockFile();
        EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    });
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    child.finish();
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
}

TEST_F(LockFileTest, AForkedChildThatTriesClosesItsCopy) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    Child child([&] {
        std::size_t const before = openDescriptors().size();
        EXPECT_EQ(tryLock(lock), Outcome::BUSY);
        EXPECT_EQ(openDescriptors().size(), before - 1);
    });
    child.finish();
}

TEST_F(LockFileTest, AParentReleasesWhatAChildHasACopyOf) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    Child const child([] {});
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    lock.unlock();
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

TEST_F(LockFileTest, AForkedChildTakesTheLockWhenItIsFree) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    lock.unlock();
    Child child([&] { EXPECT_EQ(tryLock(lock), Outcome::DONE); });
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    child.finish();
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
}

TEST_F(LockFileTest, AChildThatNoHandlerKnowsOfLeavesTheLockOfItsParent) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    pid_t const child = _Fork();
    if (child == 0) {
        bool const isLocked = lock.isLocked();
        lock.unlock();
        _exit(isLocked ? 1 : 0);
    }
    int status = 1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
}

// In a container, a service can be process 1, and so can what it starts in a container below.
TEST_F(LockFileTest, AForkedChildWithTheSameIdLeavesTheLockOfItsParent) {
    static constexpr int MAY_NOT = 77;
    // Runs `work` in a child that is process 1 to itself; returns its exit status.
    auto const asProcessOne = [](auto const& work) {
        if (unshare(CLONE_NEWPID) != 0) {
            return MAY_NOT;
        }
        pid_t const child = fork();
        if (child == 0) {
            _exit(work());
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    };
    pid_t const tester = fork();
    if (tester == 0) {
        _exit(asProcessOne([&] {
            LockFile lock(at("lock"));
            bool const isTaken = getpid() == 1 && lock.tryLock() == Outcome::DONE;
            int const inChild = asProcessOne([&] {
                bool const isSame = getpid() == 1;
                bool const isHeld = lock.isLocked();
                lock.unlock();
                return isSame && !isHeld ? 0 : 2;
            });
            bool const isKept = lock.isLocked() && tryByAnother() == Outcome::BUSY;
            return inChild == MAY_NOT ? MAY_NOT : !isTaken ? 3 : !isKept ? 4 : inChild;
        }));
    }
    int status = 0;
    waitpid(tester, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == MAY_NOT) {
        GTEST_SKIP() << "Needs to make a namespace of processes.";
    }
    EXPECT_EQ(status, 0);
}

TEST_F(LockFileTest, AProgramThatIsExecutedDoesNotKeepIt) {
    int started[2];
    int end[2];
    ASSERT_EQ(pipe2(started, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(end, O_CLOEXEC), 0);
    pid_t const child = fork();
    if (child == 0) {
        LockFile lock(at("lock"));
        dup2(end[0], STDIN_FILENO);
        if (tryLock(lock) == Outcome::DONE) {
            execl("/bin/cat", "cat", nullptr);
        }
        _exit(1);
    }
    close(started[1]);
    close(end[0]);
    char byte;
    EXPECT_EQ(read(started[0], &byte, 1), 0);  // Closed when the program begins.
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    EXPECT_EQ(tryByAnother(), Outcome::DONE);
    close(end[1]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    close(started[0]);
}

TEST_F(LockFileTest, AFileThatIsDeletedWhileItIsHeldStaysHeldByThisObject) {
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    ASSERT_EQ(unlink(at("lock").c_str()), 0);
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_FALSE(entryExists(at("lock")));
}

TEST_F(LockFileTest, SaysWhyThereIsNoLock) {
    makeDirectory(at("d"));
    makePipe(at("pipe"));
    makeSocket(at("socket"));
    makeLink("circle", at("circle"));
    struct Row {
        std::string path;
        Outcome outcome;
    };
    for (Row const& row : {Row{at("d"), Outcome::WRONG_KIND},
                           {at("pipe"), Outcome::WRONG_KIND},
                           {at("socket"), Outcome::WRONG_KIND},
                           {at("circle"), Outcome::TOO_MANY_LINKS},
                           {at("missing/lock"), Outcome::MISSING},
                           {"", Outcome::MISSING},
                           {at("lock") + '\0' + "x", Outcome::REFUSED}}) {
        LockFile lock(row.path);
        EXPECT_EQ(outcomeName(tryLock(lock)), std::string(outcomeName(row.outcome))) << row.path;
    }
    EXPECT_FALSE(entryExists(at("lock")));
}

TEST_F(LockFileTest, ARelativePathIsThatOfTheDirectoryInWhichTheLockIsTaken) {
    LockFile lock(std::string("lock"));
    makeDirectory(at("d"));
    {
        WorkingDirectory const here(at("d"));
        EXPECT_EQ(tryLock(lock), Outcome::DONE);
    }
    EXPECT_TRUE(entryExists(at("d/lock")));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
}

TEST_F(LockFileTest, FollowsALink) {
    makeLink("lock", at("link"));
    LockFile lock(at("link"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    EXPECT_EQ(linkContents(at("link")), "lock");
}

TEST_F(LockFileTest, AFileThatMayOnlyBeReadCanBeLocked) {
    OrdinaryUser const user(root);
    writeFile(at("lock"), "theirs");
    setPermissions(at("lock"), 0444);
    LockFile lock(at("lock"));
    EXPECT_EQ(tryLock(lock), Outcome::DONE);
    EXPECT_EQ(tryByAnother(), Outcome::BUSY);
    EXPECT_EQ(readFile(at("lock")), "theirs");
    lock.unlock();
    setPermissions(at("lock"), 0000);
    EXPECT_EQ(tryLock(lock), Outcome::DENIED);
}

}  // namespace

}  // namespace ovra::extra
