#pragma once

#include <atomic>
#include <future>

#include <ovra/Export.h>

namespace ovra::concurrent {

/// The end of a task: a promise that one party fulfils and one waits for.
///
/// A wait leaves the address of a semaphore on its stack. Only a caller that asks for a future
/// costs memory.
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

    /// Releases whoever waits. A second call throws `std::future_error`.
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

    // Who waits, or one of the marks: nobody has come, the one who came has left, ...
    std::atomic<Waiter*> waiting{nullptr};
};

}  // namespace ovra::concurrent
