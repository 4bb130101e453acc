#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ovra::extra {

/// The monotonic time, and waiting for a moment of it. Tests derive a clock that they set.
class Clock {
public:
    using Time = std::chrono::steady_clock::time_point;

    Clock() = default;
    Clock(Clock const&) = delete;
    Clock& operator=(Clock const&) = delete;
    virtual ~Clock() = default;

    virtual Time now() const { return std::chrono::steady_clock::now(); }

    /// Waits with the lock open until `condition` is notified or `end` has come; the last time
    /// there is never comes.
    virtual void wait(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                      Time end) {
        if (end == Time::max()) {
            condition.wait(lock);
        } else {
            condition.wait_until(lock, end);
        }
    }
};

}  // namespace ovra::extra
