#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/Export.h>

namespace ovra::extra {

class TaskMonitor;

/// What a `MonitoredExecutor` has counted. At every moment
/// `submitted == waiting + running + ended + dropped`.
struct TaskCounts {
    std::uint64_t submitted = 0;  ///< Accepted by the executor.
    std::uint64_t refused = 0;    ///< Not accepted. A submission that threw counts nowhere.
    std::uint64_t waiting = 0;    ///< Accepted, and neither started nor dropped yet.
    std::uint64_t running = 0;    ///< Started, callback not finished yet.
    std::uint64_t ended = 0;      ///< Ran to their end, the failed ones included.
    std::uint64_t failed = 0;     ///< The ended ones whose result is `FAILURE`.
    std::uint64_t dropped = 0;    ///< Left the queue unrun: cancelled, queue closed, destroyed.
    std::chrono::milliseconds longestWait{};    ///< Of the tasks that have started.
    std::chrono::milliseconds longestRun{};     ///< Of the tasks that have ended.
    std::chrono::milliseconds oldestWaiting{};  ///< How long the oldest has waited; 0 for none.
    std::chrono::milliseconds oldestRunning{};  ///< How long the oldest has run; 0 for none.
};

/// An executor that wraps another one, and shows which tasks wait and run there, and for how long.
///
/// Has no thread: let a watchdog look at `counts().oldestRunning` from time to time.
///
/// A run lasts from the first `execute()` to the end of the callback, so work that returns `REPEAT`
/// is one run. If a cancel prevents the work, but not the callback, the callback is a run, and the
/// task counts as dropped when the callback ends. Only tasks that are submitted through this object
/// are counted. A null task with a callback is passed on and not counted.
///
/// *Ownership*: holds a strong reference to the executor. That reference must not be the last if
/// this object is destroyed on one of the executor's own workers. This object may be destroyed
/// before its tasks. `submitTask` calls a task's `name()` one more time; the name is borrowed as
/// with any executor.
///
/// *Threads*: Thread-safe. No lock is held while this object calls the executor, work, a callback
/// or `name()`, nor while `writeTo` writes. Not for signal handlers.
///
/// *Failure*: as the executor. A null executor refuses everything. Callbacks get the very task that
/// was submitted. `errno` is kept.
class OVRA_EXTRA_API MonitoredExecutor : public concurrent::TaskExecutor {
public:
    /// Watches what is submitted through it to `executor`, which may be null.
    explicit MonitoredExecutor(std::shared_ptr<concurrent::TaskExecutor> executor);
    ~MonitoredExecutor() override;

    /// As the executor's own. A null task passes through unwatched.
    std::shared_ptr<concurrent::TaskHandle> submitTask(
        std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority priority,
        std::function<void(std::shared_ptr<concurrent::Task>)> const& callback) override;
    /// As the executor's own.
    std::shared_ptr<concurrent::TaskHandle> submitTask(
        std::function<concurrent::Executable::Result()> const& function,
        concurrent::TaskPriority priority,
        std::function<void(std::shared_ptr<concurrent::Task>)> const& callback,
        char const* name) override;
    /// As the executor's own; true without one.
    bool isIdle() override;

    /// All counts of one moment.
    TaskCounts counts() const;

    /// Writes a line for each waiting or running task, such as "sync running 1234 ms". The task
    /// with the longest time comes first. A null name is "unnamed"; control characters are "?". A
    /// short write is continued. False if a write fails. Blocks as the descriptor does; may throw
    /// `std::bad_alloc`.
    bool writeTo(int descriptor) const;

private:
    OVRA_LOCAL std::shared_ptr<concurrent::TaskHandle> submit(
        std::shared_ptr<concurrent::Task> const& task,
        std::function<concurrent::Executable::Result()> const& function,
        concurrent::TaskPriority priority,
        std::function<void(std::shared_ptr<concurrent::Task>)> const& callback, char const* name);

    std::shared_ptr<concurrent::TaskExecutor> const executor;
    std::shared_ptr<TaskMonitor> const monitor;
};

}  // namespace ovra::extra
