#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/extra/internal/ForkSafeLock.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

namespace ovra::extra {
namespace {

class ForkSafeLockTest : public test::BoundedTest {};

TEST_F(ForkSafeLockTest, LetsOneInAtATime) {
    ForkSafeLock lock;
    long count = 0;  // Not atomic: only the lock keeps the sum right.
    constexpr int THREADS = 4;
    int const rounds = test::scaled(100000);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                std::lock_guard<ForkSafeLock> const guard(lock);
                ++count;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, THREADS * long{rounds});
}

TEST_F(ForkSafeLockTest, WakesEveryWaiter) {
    ForkSafeLock lock;
    std::atomic<int> inside{0};
    std::vector<std::thread> threads;
    lock.lock();
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            std::lock_guard<ForkSafeLock> const guard(lock);
            ++inside;
        });
    }
    EXPECT_EQ(inside, 0);
    lock.unlock();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(inside, 8);
}

std::atomic<int> signalsHandled{0};

TEST_F(ForkSafeLockTest, SignalsLetNoWaiterIn) {
    struct sigaction action = {};  // Without SA_RESTART: it ends the wait.
    struct sigaction before;
    action.sa_handler = [](int) { ++signalsHandled; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    ForkSafeLock lock;
    std::atomic<bool> isInside{false};
    lock.lock();
    std::thread waiter([&] {
        std::lock_guard<ForkSafeLock> const guard(lock);
        isInside = true;
    });
    // Again and again: ThreadSanitizer puts a handler off that is due just before the wait.
    test::yieldUntil([&] {
        EXPECT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
        return signalsHandled >= test::scaled(1000) || isInside;
    });
    EXPECT_FALSE(isInside);
    lock.unlock();
    waiter.join();
    EXPECT_TRUE(isInside);
    sigaction(SIGUSR1, &before, nullptr);
}

// Runs `work` in a forked child; its result is the status.
template <typename Work>
int statusOfChild(Work work) {
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        _exit(work());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(ForkSafeLockTest, IsOpenInAChildWhateverAnotherThreadHeld) {
    ForkSafeLock lock;
    test::Gate isHeld;
    test::Gate mayGoOn;
    std::thread holder([&] {
        std::lock_guard<ForkSafeLock> const guard(lock);
        isHeld.open();
        mayGoOn.wait();
    });
    isHeld.wait();
    std::atomic<bool> isWaiting{false};
    std::thread waiter([&] {
        isWaiting = true;
        std::lock_guard<ForkSafeLock> const guard(lock);
    });
    test::yieldUntil([&] { return isWaiting.load(); });
    EXPECT_EQ(statusOfChild([&] {
                  errno = EXDEV;
                  lock.lock();  // Alone in here, it holds the lock for good.
                  lock.unlock();
                  lock.lock();
                  int const status = errno == EXDEV ? 0 : 1;
                  // And so on, down the family.
                  int const inner = statusOfChild([&] {
                      lock.lock();
                      lock.unlock();
                      return 0;
                  });
                  lock.unlock();
                  return status + inner;
              }),
              0);
    mayGoOn.open();
    holder.join();
    waiter.join();
}

TEST_F(ForkSafeLockTest, StaysHeldInTheParent) {
    ForkSafeLock lock;
    lock.lock();
    EXPECT_EQ(statusOfChild([&] {
                  lock.lock();
                  lock.unlock();
                  return 0;
              }),
              0);
    std::atomic<bool> isInside{false};
    std::thread other([&] {
        std::lock_guard<ForkSafeLock> const guard(lock);
        isInside = true;
    });
    EXPECT_FALSE(isInside);
    lock.unlock();
    other.join();
    EXPECT_TRUE(isInside);
}

}  // namespace
}  // namespace ovra::extra
