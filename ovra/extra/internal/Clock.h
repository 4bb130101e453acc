#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ovra::extra {

/// The monotonic time, and waiting for a moment of it. Tests derive a clock that they set.
class Clock {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// The system's clock.
    static Clock& system();

    virtual Time now() const;
    /// Waits, with `lock` released, until `condition` is notified or `end` has come.
    virtual void wait(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                      Time end);

protected:
    Clock() = default;
    ~Clock() = default;
};

}  // namespace ovra::extra
