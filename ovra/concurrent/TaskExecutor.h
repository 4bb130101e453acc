#pragma once

#include <functional>
#include <memory>

#include <ovra/Export.h>
#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/Task.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

/// Runs submitted work in the background, higher priorities earlier.
///
/// *Ownership*: held through `std::shared_ptr`; keep it for as long as submitted work must still
/// run.
///
/// *Threads*: Thread-safe. Work and then its callback run on a worker thread with no lock held.
/// Work and callback are destroyed on the thread that releases them last: a worker, a waiter, or
/// the thread that closes the queue. Work that ends its own thread (`pthread_exit()`), or whose
/// thread is cancelled (`pthread_cancel()`), ends the worker as well: the waiter of that task is
/// never released, and no new worker replaces the old one.
///
/// *Failure*: refusals are empty handle pointers. `submitTask()` throws `std::bad_alloc`,
/// `std::system_error` and whatever copying a function throws; nothing is queued then.
///
///     auto const executor = ovra::concurrent::getNoStarveTaskExecutor();
///     auto const handle = executor->submitTask(
///         [] { return ovra::concurrent::Executable::SUCCESS; }, ovra::concurrent::NORMAL, {},
///         "sync");
///     handle->waitForCompletion();
class OVRA_API TaskExecutor {
public:
    TaskExecutor() = default;
    TaskExecutor(TaskExecutor const&) = delete;
    TaskExecutor& operator=(TaskExecutor const&) = delete;
    virtual ~TaskExecutor();

    /// Submits `task`. When the task has ended, the worker calls `callback` with it, unless
    /// `callback` is empty or the task was cancelled before a worker reached it. (A cancel that
    /// arrives while the worker is starting the task may still keep the work from running; the
    /// callback is called all the same.)
    ///
    /// Returns an empty handle if both `task` and `callback` are empty, or if the executor no
    /// longer accepts work. An empty task with a callback is accepted, and occupies a worker until
    /// it is cancelled.
    virtual std::shared_ptr<TaskHandle> submitTask(
        std::shared_ptr<Task> const& task, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback) = 0;

    /// The same for a copy of `function`. `name` may be null. It is borrowed for as long as the
    /// task exists, which is beyond the end of the callback, and longer if the callback keeps the
    /// task. An empty function with a callback is accepted and ends in `FAILURE`.
    virtual std::shared_ptr<TaskHandle> submitTask(
        std::function<Executable::Result()> const& function, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback, char const* name) = 0;

    /// True if nothing is queued, also while workers are still running tasks.
    virtual bool isIdle() = 0;
};

}  // namespace ovra::concurrent
