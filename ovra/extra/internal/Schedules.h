#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::extra {

/// What a schedule submits. Shared by the schedule and the tasks that it has submitted.
struct ScheduledJob {
    std::function<concurrent::Executable::Result()> function;
    concurrent::TaskPriority priority;
    std::optional<std::string> name;
    std::atomic<bool> isUnderWay{false};  ///< Submitted, and has not ended.
};

/// What is to be submitted when.
///
/// *Threads*: Not thread-safe: the caller synchronises. No function that was scheduled is destroyed
/// in here.
class Schedules {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Job = std::shared_ptr<ScheduledJob>;
    struct Due {
        std::uint64_t id;
        Job job;  ///< Empty if its last task is still under way.
    };

    /// A schedule for `due`, and then every `period` after that; 0: only once. Returns its number:
    /// 1, 2 and so on. If it throws `std::bad_alloc`, nothing has changed.
    std::uint64_t add(Time due, std::chrono::milliseconds period, Job job);
    /// Returns what the schedule would have submitted; empty if there is no such schedule. Looks at
    /// them one by one.
    Job remove(std::uint64_t id);

    /// The earliest time at which something is due; the last time of the clock if nothing is
    /// scheduled.
    Time nextDue() const;
    /// Takes the schedule that has been due for longest; of several, the one that was added first.
    /// A schedule that recurs is due again at the first of its times that is later than `now`.
    /// Something must be due. Allocates nothing.
    Due takeDue(Time now);

private:
    struct Schedule {
        std::chrono::milliseconds period;
        Job job;
    };

    std::uint64_t lastId = 0;
    std::map<std::pair<Time, std::uint64_t>, Schedule> schedules;  // By due time and number.
};

}  // namespace ovra::extra
