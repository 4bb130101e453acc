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
/// *Ownership*: every call returns a reference to the same executor, made on the first call. The
/// library releases its own reference with its statics, at process exit or unload. The release of
/// the last reference closes the executor's queue and joins its worker, so a task that never ends
/// blocks the exit. A caller that keeps its reference keeps the executor alive beyond that point.
///
/// *At exit*: two kinds of code run before the release, while the worker may still be running
/// tasks: exit handlers registered after the first call, and destructors of statics constructed
/// after it. Handlers and destructors from before the first call run after the release, and must
/// not call this function. `exit()` on the executor's own worker ends the process abnormally.
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
