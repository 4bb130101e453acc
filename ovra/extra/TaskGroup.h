#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/Export.h>

namespace ovra::extra {

/// Tasks that are awaited, bounded and cancelled together.
///
/// A group counts each task that is submitted through it until the task has ended: until its
/// callback has returned, or the executor has dropped the task (cancelled in the queue, queue
/// closed, executor destroyed). It keeps nothing of a task that has ended.
///
/// *Ownership*: holds a strong reference to the executor. That reference must not be the last if
/// the group is destroyed on one of the executor's own workers. The group may be destroyed before
/// its tasks: that cancels nothing and waits for nothing.
///
/// *Threads*: Thread-safe. No lock is held while the executor is called. `wait()` inside a task or
/// a callback of the same group deadlocks, and inside another task of the same one-thread executor
/// too. Work and what it captured may be destroyed just after the task has been counted down.
///
/// *Failure*: as `TaskExecutor::submitTask`; nothing is counted if it throws. A null executor
/// refuses everything. `errno` is kept.
///
///     TaskGroup group(executor, 100);
///     while (auto const file = nextFile()) {
///         while (!group.submitTask([file] { return check(file); }, LOW, {}, "check")) {
///             group.waitFor(10ms);
///         }
///     }
///     group.wait();
class OVRA_EXTRA_API TaskGroup {
public:
    /// At most `limit` tasks wait and run at any moment; 0 is no limit.
    explicit TaskGroup(std::shared_ptr<concurrent::TaskExecutor> executor, std::size_t limit = 0);
    TaskGroup(TaskGroup const&) = delete;
    TaskGroup& operator=(TaskGroup const&) = delete;
    ~TaskGroup();

    /// As `TaskExecutor::submitTask`: the callback gets this very task. An empty handle if the
    /// executor refuses the task or the group is at its limit; never blocks for the limit.
    std::shared_ptr<concurrent::TaskHandle> submitTask(
        std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority priority,
        std::function<void(std::shared_ptr<concurrent::Task>)> const& callback);
    /// The same for a copy of `function`. `name` is borrowed, and may be null.
    std::shared_ptr<concurrent::TaskHandle> submitTask(
        std::function<concurrent::Executable::Result()> const& function,
        concurrent::TaskPriority priority,
        std::function<void(std::shared_ptr<concurrent::Task>)> const& callback, char const* name);

    /// How many tasks have been submitted and have not ended.
    std::size_t pending() const;

    /// Blocks until no task is pending.
    void wait();
    /// The same for `limit` at most; returns whether no task is pending. A `limit` of 0 or less
    /// does not block. A `limit` that the clock cannot reach is no limit.
    bool waitFor(std::chrono::milliseconds limit);

    /// Cancels every pending task, as `TaskHandle::cancel()` does. Tasks that have ended are left
    /// alone. A task that is cancelled in the queue stays pending until the executor releases it.
    /// The call may overlook a task that another thread is submitting at that moment.
    void cancelAll();

private:
    class OVRA_LOCAL Tasks;

    std::shared_ptr<concurrent::TaskExecutor> const executor;
    std::shared_ptr<Tasks> const tasks;
};

}  // namespace ovra::extra
