#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/concurrent/TaskHandle.h>

#include "HashTask.h"
#include "Interrupt.h"
#include "Progress.h"

namespace manifest {

/// The executor to work on: one of the program's own with `jobs` workers, or, for 0, the shared one
/// under which nothing starves.
std::shared_ptr<ovra::concurrent::TaskExecutor> makeExecutor(unsigned int jobs);

/// Runs hash tasks on an executor, follows them through their handles, and cancels what is still
/// queued on Ctrl-C.
///
/// Used from one thread; `cancel()` from any. The destructor does not wait: call `waitFor()` for
/// every task first. An executor of the program's own ends with its hasher.
class Hasher {
public:
    Hasher(std::shared_ptr<ovra::concurrent::TaskExecutor> workers,
           std::shared_ptr<Progress> sharedProgress, Interrupt& ctrlC);
    Hasher(Hasher const&) = delete;
    Hasher& operator=(Hasher const&) = delete;
    ~Hasher();

    /// Whether a file of that size goes ahead of the large ones.
    static bool isSmall(std::int64_t sizeBytes);

    /// Queues `task`, a small file ahead of the large ones. Its number is the number of tasks
    /// submitted before it. Once cancelled: false, and nothing is queued.
    bool submit(std::shared_ptr<HashTask> const& task);

    /// Puts a task ahead of all others. Does nothing to one that has started.
    void raise(std::size_t number);

    /// Cancels every task that has not started, for good. Running ones finish.
    void cancel();

    std::size_t submitted() const;
    std::size_t submittedAsSmall() const;

    /// Blocks until the task has ended or has been skipped because of `cancel()`, and forgets it.
    /// Rethrows what its work threw. Call it once for each.
    void waitFor(std::size_t number);

private:
    std::shared_ptr<ovra::concurrent::TaskExecutor> executor;
    std::shared_ptr<Progress> progress;
    Interrupt& interrupt;
    std::size_t small = 0;

    std::mutex mutex;  // Guards the rest against `cancel()`.
    // From task number `forgotten` on; null once `waitFor()` has returned for the task.
    std::deque<std::shared_ptr<ovra::concurrent::TaskHandle>> handles;
    std::size_t forgotten = 0;
    bool cancelled = false;
};

}  // namespace manifest
