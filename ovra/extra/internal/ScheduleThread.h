#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/internal/Clock.h>
#include <ovra/extra/internal/Schedules.h>

namespace ovra::extra {

/// The thread that submits what is due; what is behind `ScheduledTasks`.
///
/// *Ownership*: shared by its owner and the thread. Before the owner releases it, it calls
/// `stop()`.
class ScheduleThread : public std::enable_shared_from_this<ScheduleThread> {
public:
    ScheduleThread(std::shared_ptr<concurrent::TaskExecutor> servedExecutor,
                   std::shared_ptr<Clock> usedClock);

    /// See `Schedules::add`. Starts the thread if there is none; 0 if that fails, or in a forked
    /// process.
    std::uint64_t add(std::chrono::milliseconds delay, std::chrono::milliseconds period,
                      Schedules::Job const& job);
    /// Whether there was such a schedule. False in a forked process.
    bool remove(std::uint64_t id);
    /// Joins the thread, unless it is the caller's own, or another process's.
    void stop();

private:
    bool isForked() const;
    bool start();
    void run();
    bool submit(Schedules::Job const& job);

    std::shared_ptr<concurrent::TaskExecutor> const executor;
    std::shared_ptr<Clock> const clock;
    std::uint32_t const forksBefore;
    std::shared_ptr<ScheduleThread> kept;  // Itself, in a forked process: for good.

    std::mutex mutex;
    std::condition_variable condition;  // The first due time has changed, or the end has come.
    // Guarded by `mutex`.
    Schedules schedules;
    std::thread thread;
    bool isStopping = false;
};

}  // namespace ovra::extra
