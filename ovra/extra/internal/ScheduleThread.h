#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/internal/Clock.h>
#include <ovra/extra/internal/Schedules.h>

namespace ovra::extra {

/// The thread that submits what is due; the work behind `ScheduledTasks`.
///
/// *Ownership*: the caller's, until `stop()`.
class ScheduleThread {
public:
    /// The clock must outlive the thread.
    explicit ScheduleThread(std::shared_ptr<concurrent::TaskExecutor> servedExecutor,
                            Clock& usedClock = Clock::system());
    ScheduleThread(ScheduleThread const&) = delete;
    ScheduleThread& operator=(ScheduleThread const&) = delete;

    /// See `Schedules::add`. Starts the thread if there is none; 0 if that fails, or in a forked
    /// process.
    std::uint64_t add(std::chrono::milliseconds delay, std::chrono::milliseconds period,
                      Schedules::Job const& job);
    /// Whether there was such a schedule. False in a forked process.
    bool remove(std::uint64_t id);
    /// Ends the thread and destroys this object. If the thread itself calls this, both happen once
    /// its current submission is complete. In a forked process the object stays, for good: its
    /// thread, and perhaps its lock, are the parent's.
    void stop();

private:
    ~ScheduleThread() = default;

    static void* begin(void* object);
    bool isForked() const;
    bool start();
    void run();
    bool submit(Schedules::Job const& job);

    std::shared_ptr<concurrent::TaskExecutor> const executor;
    Clock& clock;
    std::uint32_t const forksBefore;

    std::mutex mutex;
    std::condition_variable condition;  // The first due time has changed, or the end has come.
    // Guarded by `mutex`.
    Schedules schedules;
    bool isStarted = false;
    bool isStopping = false;
    bool isItsOwnOwner = false;
    pthread_t thread{};  // If started.
};

}  // namespace ovra::extra
