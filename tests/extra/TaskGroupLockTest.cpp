// What happens between the calls of the C library that a group makes: another thread is let in at
// an exact place.

#include <pthread.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/extra/TaskGroup.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/Gate.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::extra {
namespace {

using concurrent::NORMAL;
using concurrent::succeed;
using ovra::test::Gate;
using ovra::test::ThreadCalls;
using test::ManualExecutor;

class TaskGroupLockTest : public concurrent::ExecutorTest {
protected:
    std::shared_ptr<ManualExecutor> const manual = std::make_shared<ManualExecutor>();
    TaskGroup group{manual};
    pthread_mutex_t* const mutex =
        ovra::test::mutexesLockedBy([this] { EXPECT_EQ(group.pending(), 0u); }).at(0);
};

// A task that ended meanwhile would take itself out of the list that is being read.
TEST_F(TaskGroupLockTest, NoTaskCanEndWhileCancelAllListsThem) {
    for (int i = 0; i < 3; ++i) {
        group.submitTask(succeed(), NORMAL, {}, nullptr);
    }
    std::vector<bool> areLocked;
    areLocked.reserve(10);
    ThreadCalls calls;
    calls.onAllocate = [&](std::size_t) {  // For the list.
        areLocked.push_back(ovra::test::isLocked(mutex));
        return false;
    };
    calls.install();
    group.cancelAll();
    calls.onAllocate = nullptr;
    EXPECT_GE(areLocked.size(), 2u);
    EXPECT_EQ(areLocked, std::vector<bool>(areLocked.size(), true));
    manual->runAll();
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupLockTest, ATaskMayEndBeforeItsHandleIsKept) {
    int locks = 0;
    ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* locked) {
        if (locked == mutex && ++locks == 2) {  // The first counts the task.
            manual->runAll();
        }
        return 0;
    };
    calls.install();
    auto const handle = group.submitTask(succeed(), NORMAL, {}, nullptr);
    calls.onLock = nullptr;
    EXPECT_EQ(handle->getState(), concurrent::Executable::DONE);
    EXPECT_EQ(group.pending(), 0u);
    EXPECT_EQ(handle.use_count(), 1) << "the group forgets a task that has ended";
}

struct Failure : std::exception {
    explicit Failure(std::shared_ptr<void> destroyed) : atEnd(std::move(destroyed)) {}
    std::shared_ptr<void> atEnd;
};

// The destructor of an exception may ask the group.
TEST_F(TaskGroupLockTest, WhatATaskHasThrownIsDestroyedWithoutTheLock) {
    std::optional<bool> isLocked;
    group.submitTask(
        [&]() -> concurrent::Executable::Result {
            throw Failure({nullptr, [&](void*) { isLocked = ovra::test::isLocked(mutex); }});
        },
        NORMAL, {}, nullptr);
    manual->runAll();
    EXPECT_EQ(isLocked, false);
}

// The last task, dropped by the executor, is about to take the lock and count itself down.
TEST_F(TaskGroupLockTest, WhoBeginsToWaitJustBeforeTheLastTaskEndsIsWoken) {
    group.submitTask(succeed(), NORMAL, {}, nullptr);
    Gate isEnding;
    Gate isWaiting;
    std::thread waiter([&] {
        isEnding.wait();
        errno = 123;
        group.wait();
        EXPECT_EQ(errno, 123);
    });
    pthread_t const worker = pthread_self();
    ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* locked) {
        if (locked == mutex && pthread_equal(worker, pthread_self()) != 0) {
            isEnding.open();
            isWaiting.wait();
        }
        return 0;
    };
    // With the mutex locked, so that the task goes on once the other thread sleeps.
    calls.onWait = [&](pthread_cond_t*, pthread_mutex_t* released) {
        if (released == mutex) {
            isWaiting.open();
            errno = EIO;
        }
    };
    calls.install();
    manual->close();
    waiter.join();
    EXPECT_EQ(group.pending(), 0u);
}

}  // namespace
}  // namespace ovra::extra
