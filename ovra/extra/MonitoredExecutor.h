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
    std::uint64_t failed = 0;     ///< Those of them whose result is `FAILURE`.
    std::uint64_t dropped = 0;    ///< Left the queue unrun: cancelled, queue closed, destroyed.
    std::chrono::milliseconds longestWait{};    ///< Of what has started.
    std::chrono::milliseconds longestRun{};     ///< Of what has ended.
    std::chrono::milliseconds oldestWaiting{};  ///< How long that has been waiting; 0 for none.
    std::chrono::milliseconds oldestRunning{};  ///< How long that has been running; 0 for none.
};

/// An executor around another that shows what is waiting and running in it, and for how long.
///
/// Has no thread: let a watchdog look at `counts().oldestRunning` from time to time.
///
/// A run goes from the first `execute()` to the end of the callback: `REPEAT` is one run. Where a
/// cancel keeps the work, but not the callback, from running, the callback is a run that ends as
/// dropped. Only what is submitted through this object is counted, and no null task with a
/// callback: that passes through.
///
/// *Ownership*: holds the executor strongly, so the object must not be its last owner on one of its
/// own workers. It may be destroyed before its tasks. A task's name is asked for once more, when it
/// is submitted, and borrowed as ever.
///
/// *Threads*: Thread-safe. No lock is held while the executor, work, callbacks or a name are asked
/// or run, nor while `writeTo` writes. Not for signal handlers.
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

    /// Writes a line for each task that is waiting or running, the one that has been so for longest
    /// first, such as "sync running 1234 ms". A null name is "unnamed"; control characters are "?".
    /// A short write is continued. False if a write fails. Blocks as the descriptor does; may throw
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
