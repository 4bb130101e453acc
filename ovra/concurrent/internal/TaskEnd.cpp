#include <ovra/concurrent/internal/TaskEnd.h>

#include <pthread.h>
#include <semaphore.h>

#include <memory>

namespace ovra::concurrent {

struct TaskEnd::Waiter {
    sem_t semaphore;  // Of a thread that waits, on its stack.
    bool isPromise;   // Of a future, on the heap.

    static Waiter fulfilled;
};

TaskEnd::Waiter TaskEnd::Waiter::fulfilled = {};

struct TaskEnd::Promise : Waiter {
    std::promise<bool> promise;
};

static_assert(std::atomic<void*>::is_always_lock_free);

TaskEnd::~TaskEnd() {
    if (Waiter* const last = waiter; last != &Waiter::fulfilled) {
        delete static_cast<Promise*>(last);  // A thread that waits keeps the task alive.
    }
}

void TaskEnd::fulfil() {
    Waiter* const waiting = waiter.exchange(&Waiter::fulfilled);
    if (waiting == &Waiter::fulfilled) {
        throw std::future_error(std::future_errc::promise_already_satisfied);
    }
    if (waiting == nullptr) {
        return;
    }
    if (!waiting->isPromise) {
        sem_post(&waiting->semaphore);
        return;
    }
    std::unique_ptr<Promise> const owned(static_cast<Promise*>(waiting));
    owned->promise.set_value(true);
}

void TaskEnd::wait() {
    retrieve();
    Waiter self = {};
    sem_init(&self.semaphore, 0, 0);
    Waiter* expected = nullptr;
    if (!waiter.compare_exchange_strong(expected, &self)) {
        return;
    }
    try {
        while (sem_wait(&self.semaphore) != 0) {
        }
    } catch (...) {
        // This thread is being cancelled, and its stack goes: not before the semaphore was posted,
        // if whoever fulfils the promise has its address.
        expected = &self;
        if (!waiter.compare_exchange_strong(expected, nullptr)) {
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
    retrieve();
    Waiter* expected = nullptr;
    if (waiter.compare_exchange_strong(expected, owned.get())) {
        static_cast<void>(owned.release());
    } else {
        owned->promise.set_value(true);
    }
    return result;
}

void TaskEnd::retrieve() {
    if (retrieved.exchange(true)) {
        throw std::future_error(std::future_errc::future_already_retrieved);
    }
}

}  // namespace ovra::concurrent
