#pragma once

#include <atomic>
#include <future>

#include <ovra/Export.h>

namespace ovra::concurrent {

/// The end of a task: a promise that one thread fulfils and another waits for.
///
/// A waiting thread publishes the address of a semaphore on its own stack. Only a future needs
/// memory.
///
/// Private to the library. Installed because every `SubmittedTask` holds one. *Threads*:
/// thread-safe, without a lock.
class OVRA_LOCAL TaskEnd {
public:
    TaskEnd() = default;
    TaskEnd(TaskEnd const&) = delete;
    TaskEnd& operator=(TaskEnd const&) = delete;
    /// A promise that was not fulfilled is broken.
    ~TaskEnd();

    /// Releases the waiter. A second call throws `std::future_error`.
    void fulfil();
    /// Blocks until the promise is fulfilled. Throws `std::future_error` if another wait or a
    /// future came before.
    void wait();
    /// The promise's future. Throws as `wait()`, or `std::bad_alloc`.
    std::future<bool> future();

private:
    struct Waiter;
    struct Promise;

    bool retrieve(Waiter* waiter);

    // The waiter, or one of the marks: nobody has waited, the waiter was cancelled, ...
    std::atomic<Waiter*> waiting{nullptr};
};

}  // namespace ovra::concurrent
