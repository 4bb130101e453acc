#include <ovra/concurrent/internal/TaskEnd.h>

#include <pthread.h>
#include <semaphore.h>

#include <memory>

#include <ovra/log/Log.h>

namespace ovra::concurrent {

struct TaskEnd::Waiter {
    sem_t semaphore;  // Of a thread that waits, on its stack.
    bool isPromise;   // Of a future, on the heap.

    // Marks that stand in the place of a waiter. Null: nobody has waited yet.
    static Waiter left;       // A thread waited, and was cancelled.
    static Waiter fulfilled;  // The task ended, and nobody had waited.
    static Waiter over;       // The task ended, and somebody has waited.
};

TaskEnd::Waiter TaskEnd::Waiter::left = {};
TaskEnd::Waiter TaskEnd::Waiter::fulfilled = {};
TaskEnd::Waiter TaskEnd::Waiter::over = {};

struct TaskEnd::Promise : Waiter {
    std::promise<bool> promise;
};

static_assert(std::atomic<void*>::is_always_lock_free);

TaskEnd::~TaskEnd() {
    // A waiting thread keeps the task alive, so a waiter that is left is a promise.
    Waiter* const last = waiting;
    if (last != nullptr && last->isPromise) {
        delete static_cast<Promise*>(last);
    }
}

void TaskEnd::fulfil() {
    Waiter* waiter = waiting;
    do {
        if (waiter == &Waiter::fulfilled || waiter == &Waiter::over) {
            log::log(log::ERROR, "SubmittedTask::setPromiseValue()",
                     "A task has come to its end a second time: submit each SubmittedTask once.");
            throw std::future_error(std::future_errc::promise_already_satisfied);
        }
    } while (!waiting.compare_exchange_weak(
        waiter, waiter == nullptr ? &Waiter::fulfilled : &Waiter::over));
    if (waiter == nullptr || waiter == &Waiter::left) {
        return;
    }
    if (waiter->isPromise) {
        std::unique_ptr<Promise> const owned(static_cast<Promise*>(waiter));
        owned->promise.set_value(true);
    } else {
        sem_post(&waiter->semaphore);
    }
}

void TaskEnd::wait() {
    Waiter self = {};
    sem_init(&self.semaphore, 0, 0);
    if (!retrieve(&self)) {
        return;
    }
    try {
        while (sem_wait(&self.semaphore) != 0) {
        }
    } catch (...) {
        // This thread is being cancelled, and its stack ends with it. If fulfil() already has the
        // address of the semaphore, wait for its post first.
        Waiter* waiter = &self;
        if (!waiting.compare_exchange_strong(waiter, &Waiter::left)) {
            int previous = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
            while (sem_wait(&self.semaphore) != 0) {
            }
        }
        throw;
    }
}

std::future<bool> TaskEnd::future() {
    auto owned = std::make_unique<Promise>();
    owned->isPromise = true;
    auto result = owned->promise.get_future();
    if (retrieve(owned.get())) {
        static_cast<void>(owned.release());
    } else {
        owned->promise.set_value(true);
    }
    return result;
}

// Registers the first waiter. False if the task has already ended.
bool TaskEnd::retrieve(Waiter* waiter) {
    Waiter* found = nullptr;
    if (waiting.compare_exchange_strong(found, waiter)) {
        return true;
    }
    if (found == &Waiter::fulfilled && waiting.compare_exchange_strong(found, &Waiter::over)) {
        return false;
    }
    log::log(log::ERROR, "SubmittedTask::getFuture()",
             "A task was waited for, or its future was asked for, a second time: wait once.");
    throw std::future_error(std::future_errc::future_already_retrieved);
}

}  // namespace ovra::concurrent
