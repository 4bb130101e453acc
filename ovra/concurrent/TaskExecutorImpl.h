#pragma once

#include <forward_list>
#include <memory>

#include <ovra/Export.h>
#include <ovra/concurrent/TaskExecutor.h>

namespace ovra::concurrent {

class SubmittedTask;
class SubmittedTasksQueue;
class TaskExecutorWorker;

/// An executor with worker threads of its own that serve one queue.
///
/// *Ownership*: shares the queue with whoever made it. Destroying the executor closes the queue,
/// drops what is queued (without callback, state change or release of waiters) and waits for the
/// task that each worker is running, callback included: work that never ends blocks the destructor.
///
/// *Threads*: Thread-safe. Three misuses to avoid:
/// - Releasing the last reference on one of the executor's own workers ends the process, since a
///   thread cannot join itself. Work or a callback that owns the executor can hold that reference.
///   So can work, a callback or the destructor of a `Task` that calls
///   `std::weak_ptr<TaskExecutor>::lock()`, if the owner releases its reference meanwhile.
/// - A task that waits for another task of the same one-worker executor never returns.
/// - Two executors that are destroyed on each other's workers wait for each other for good.
///
/// After `fork()` the child has no workers: what it submits is queued and never runs. If another
/// thread held one of the library's locks when the process forked, the child hangs when it needs
/// that lock: to submit, to ask the executor or a task, to cancel, or to destroy the executor.
///
/// *Failure*: see the constructor and `TaskExecutor`.
///
///     auto const queue = std::make_shared<SubmittedTasksQueue>(
///         std::make_shared<NoStarveTaskRankingStrategy>());
///     auto const executor = std::make_shared<TaskExecutorImpl>(4, queue);
class OVRA_API TaskExecutorImpl : public TaskExecutor {
public:
    /// Starts `numThreads` workers, at most 12. With 0, tasks are queued and never run. A null
    /// `tasksQueue` counts as a closed one: no worker is started, every submission is refused.
    ///
    /// If a thread cannot be started, `std::system_error` escapes after the queue has been closed
    /// and the workers already started have been joined: nothing is left running.
    TaskExecutorImpl(unsigned int numThreads,
                     std::shared_ptr<SubmittedTasksQueue> const& tasksQueue);
    TaskExecutorImpl(TaskExecutorImpl const&) = delete;
    TaskExecutorImpl& operator=(TaskExecutorImpl const&) = delete;
    ~TaskExecutorImpl() override;

    std::shared_ptr<TaskHandle> submitTask(
        std::shared_ptr<Task> const& task, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback) override;
    std::shared_ptr<TaskHandle> submitTask(
        std::function<Executable::Result()> const& function, TaskPriority priority,
        std::function<void(std::shared_ptr<Task>)> const& callback, char const* name) override;
    bool isIdle() override;

    /// Queues a task that the application has made itself. An empty handle if the queue refuses it.
    std::shared_ptr<TaskHandle> addSubmittedTaskToQueue(std::shared_ptr<SubmittedTask> const& task);

private:
    OVRA_LOCAL void shutDown();

    std::shared_ptr<SubmittedTasksQueue> queue;
    std::forward_list<std::shared_ptr<TaskExecutorWorker>> workers;  // Newest first.
};

}  // namespace ovra::concurrent
