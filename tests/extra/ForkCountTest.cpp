// A process forks while another of its threads uses the library for the first time.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include <ovra/extra/LockFile.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/NextFunction.h>

namespace {

// Called once, by the thread that asks the C library to count the forks.
std::function<void()>* meanwhile = nullptr;

using Handler = void (*)();

}  // namespace

// A sanitizer's runtime calls it before it can record accesses.
extern "C" __attribute__((visibility("default"))) int ovraTest_registerAtFork(
    Handler before, Handler inParent, Handler inChild, void* library) asm("__register_atfork");
extern "C" __attribute__((no_sanitize("thread"), no_sanitize("address"))) int
ovraTest_registerAtFork(Handler before, Handler inParent, Handler inChild, void* library) {
    if (meanwhile != nullptr) {
        (*std::exchange(meanwhile, nullptr))();
    }
    return ovra::test::nextFunction<int(Handler, Handler, Handler, void*)>("__register_atfork")(
        before, inParent, inChild, library);
}

namespace ovra::extra {

namespace {

class ForkCountTest : public fs::test::TemporaryDirectoryTest {};

TEST_F(ForkCountTest, AChildNeverWaitsForAThreadThatBeganToCountInTheParent) {
    int report[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    auto const say = [&](bool isSo) { EXPECT_EQ(write(report[1], isSo ? "y" : "n", 1), 1); };
    pid_t child = -1;
    std::function<void()> forking = [&] {
        std::thread([&] {
            child = fork();
            if (child != 0) {
                return;
            }
            alarm(ovra::test::deadlineSeconds());
            LockFile lock(at("lock"));
            say(lock.tryLock() == Outcome::DONE);
            pid_t const inner = fork();
            if (inner == 0) {
                say(!lock.isLocked());
                _exit(0);
            }
            waitpid(inner, nullptr, 0);
            say(lock.isLocked());
            _exit(0);
        }).join();
    };
    meanwhile = &forking;
    LockFile lock(at("other"));
    EXPECT_EQ(lock.tryLock(), Outcome::DONE);
    EXPECT_EQ(meanwhile, nullptr) << "some test before this one has used the library";
    close(report[1]);
    std::string said;
    for (char byte; read(report[0], &byte, 1) == 1;) {
        said += byte;
    }
    close(report[0]);
    EXPECT_EQ(said, "yyy");
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_TRUE(lock.isLocked());
}

}  // namespace

}  // namespace ovra::extra
