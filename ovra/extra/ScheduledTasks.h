#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/Export.h>

namespace ovra::extra {

class ScheduleThread;

/// Submits functions to an executor later, once or again and again.
///
/// *Ownership*: holds a strong reference to the executor. That reference must not be the last if a
/// task of the executor destroys this object. The destructor drops what is due later, joins the
/// thread, and waits for no task that has been submitted. Functions and names are copied.
///
/// *Threads*: Thread-safe, in its own tasks too. The object has one thread, named "ovra-scheduled",
/// which starts with the first schedule. The thread blocks all signals, sleeps until something is
/// due, and runs nothing itself: it only submits, with no lock held. (An executor that runs a task
/// inside `submitTask` runs it on that thread.) The destructor may run in one of the object's own
/// tasks, and at exit if the object is a static. After `fork`, the child has no such thread: there,
/// all schedules are refused, `cancel` does nothing, and the destructor joins nothing and keeps the
/// executor for good.
///
/// *Failure*: 0 instead of a number if the executor is null, the function empty, or the system
/// provides no thread. `std::bad_alloc` leaves everything as it was. What the functions throw is
/// the executor's matter. `errno` is kept.
///
/// *Units*: numbers count up from 1. The clock is monotonic: it stands still while the device
/// sleeps. A time beyond the clock's range never comes.
///
///     ScheduledTasks scheduled(executor);
///     scheduled.every(1min, [] { return checkDisk(); }, LOW, "disk");
class OVRA_EXTRA_API ScheduledTasks {
public:
    /// Submits to `executor`. With a null one, every schedule is refused.
    explicit ScheduledTasks(std::shared_ptr<concurrent::TaskExecutor> executor);
    ScheduledTasks(ScheduledTasks const&) = delete;
    ScheduledTasks& operator=(ScheduledTasks const&) = delete;
    ~ScheduledTasks();

    /// Submits `function` once, after `delay`; one below 0 counts as 0. A submission that the
    /// executor refuses, or that throws, is dropped. `name` may be null. Returns the number for
    /// `cancel`.
    std::uint64_t after(std::chrono::milliseconds delay,
                        std::function<concurrent::Executable::Result()> function,
                        concurrent::TaskPriority priority, char const* name);

    /// Submits `function` at fixed times: one period from now, two periods from now, and so on. A
    /// period of 0 or less is refused: 0 is returned.
    ///
    /// A time is skipped, and never made up for, if the last task has not ended, or if a later time
    /// has already come. A task ends with its callback, or when the executor drops it. A submission
    /// that the executor refuses, or that throws, ends the schedule.
    std::uint64_t every(std::chrono::milliseconds period,
                        std::function<concurrent::Executable::Result()> function,
                        concurrent::TaskPriority priority, char const* name);

    /// Ends a schedule. False if there is no schedule of this number: it has ended, or has made its
    /// only submission. What has been submitted still runs. Looks at the schedules one by one.
    bool cancel(std::uint64_t id);

private:
    ScheduleThread* const thread;
};

}  // namespace ovra::extra
