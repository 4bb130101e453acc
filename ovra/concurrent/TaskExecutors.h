#pragma once

#include <memory>

#include <ovra/Export.h>
#include <ovra/concurrent/TaskExecutor.h>

namespace ovra::concurrent {

/// The number of worker threads of each shared executor: 1, so its tasks run one at a time.
extern OVRA_API unsigned int const S_NUM_TASK_EXECUTOR_THREADS;

/// The process-wide executor that serves by priority; `HighestPriorityTaskRankingStrategy` says how
/// far age counts.
///
/// *Ownership*: every call returns a reference to the same executor, made on the first call. It is
/// released with the library's statics at process exit or unload, where the last reference closes
/// its queue and joins its worker: a task that never ends holds the exit. A caller that keeps its
/// reference keeps the executor beyond that point.
///
/// *At exit*: exit handlers registered and statics constructed after the first call run before the
/// release, while the worker may still be running tasks. Those from before the first call run after
/// the release, and must not call this function. `exit()` on the executor's own worker ends the
/// process abnormally.
///
/// *At unload*: the executor is released with the loader's lock held. So a task that loads a
/// library meanwhile never ends, and neither does `dlclose()`. An executor that the application
/// still holds would run unmapped code.
///
/// *Threads*: Thread-safe, concurrent first calls included.
///
/// *Failure*: `std::system_error` or `std::bad_alloc` if the executor cannot be made; the next call
/// tries again.
OVRA_API std::shared_ptr<TaskExecutor> getHighestPriorityTaskExecutor();

/// The process-wide executor under which waiting tasks gain rank, so that none starves. Otherwise
/// as `getHighestPriorityTaskExecutor()`, with which it shares nothing.
OVRA_API std::shared_ptr<TaskExecutor> getNoStarveTaskExecutor();

}  // namespace ovra::concurrent
