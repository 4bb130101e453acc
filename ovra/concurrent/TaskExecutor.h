#pragma once

#include <functional>
#include <memory>

#include <ovra/Export.h>
#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/Task.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

/// Runs submitted work in the background, the highest priority first.
///
/// *Ownership*: held through `std::shared_ptr`; keep it for as long as submitted work must still
/// run.
///
/// *Threads*: Thread-safe. Work and then its callback run on a worker thread with no lock held.
/// They are destroyed on the thread that releases them last: a worker, a waiter, or whoever closes
/// the queue. Work that ends its thread (`pthread_exit()`, `pthread_cancel()`) takes the worker
/// with it: nobody who waits for that task is released, and no task runs in that worker's place.
///
/// *Failure*: refusals are empty handle pointers. `std::bad_alloc`, `std::system_error` and
/// whatever copying a function throws escape from `submitTask()`, and nothing is queued then.
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

    /// Submits `task`; `callback`, which may be empty, is called with it after it has ended, unless
    /// it was cancelled before a worker reached it. (A cancel that arrives as the worker starts on
    /// it may be in time to keep the work from running; the callback is called all the same.)
    ///
    /// Refused with an empty handle if both are empty or the executor no longer accepts work. An
    /// empty task with a callback is accepted, and holds a worker until it is cancelled.
    virtual std::shared_ptr<TaskHandle> submitTask(
        std::shared_ptr<Task> const& task, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback) = 0;

    /// The same for a copy of `function`. `name`, which may be null, is borrowed for as long as the
    /// task exists: beyond the callback, and for as long as the callback keeps the task. An empty
    /// function with a callback is accepted and ends in `FAILURE`.
    virtual std::shared_ptr<TaskHandle> submitTask(
        std::function<Executable::Result()> const& function, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback, char const* name) = 0;

    /// True if nothing is queued, also while workers are still running tasks.
    virtual bool isIdle() = 0;
};

}  // namespace ovra::concurrent
