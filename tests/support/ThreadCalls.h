#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace ovra::test {

/// From `install()` on, runs a hook on the calling thread before each call of these thread
/// functions, and of `operator new`, in the process; an `after` hook runs after the call. For tests
/// that must stop a thread at an exact place, or let a call fail.
///
/// Link ThreadCalls.cpp into the test. Set the hooks, then `install()`; the object must outlive
/// every call that finds it installed. Calls made within a hook run no hook.
struct ThreadCalls {
    ThreadCalls() = default;
    ThreadCalls(ThreadCalls const&) = delete;
    ThreadCalls& operator=(ThreadCalls const&) = delete;
    ~ThreadCalls();

    void install();

    /// An error number to fail with, or 0 to go on.
    std::function<int()> onCreate;
    std::function<int(pthread_mutex_t*)> onLock;
    /// Whether there is no memory for so many bytes.
    std::function<bool(std::size_t)> onAllocate;

    std::function<void(pthread_mutex_t*)> onUnlock;
    std::function<void(pthread_mutex_t*)> afterUnlock;
    std::function<void(pthread_t)> afterCreate;
    std::function<void(pthread_t)> onJoin;
    std::function<void(pthread_t)> onDetach;
    std::function<void(pthread_cond_t*, pthread_mutex_t*)> onWait;
    std::function<void(pthread_cond_t*)> onSignal;
    std::function<void(pthread_cond_t*)> onBroadcast;
    std::function<void()> onYield;
    std::function<void(sem_t*)> onSemaphoreWait;
    std::function<void(sem_t*)> onSemaphorePost;
};

/// The mutexes that this thread locks in the course of `action`, in order.
std::vector<pthread_mutex_t*> mutexesLockedBy(std::function<void()> const& action);

/// Whether `mutex` is locked, by whichever thread.
bool isLocked(pthread_mutex_t* mutex);

}  // namespace ovra::test
