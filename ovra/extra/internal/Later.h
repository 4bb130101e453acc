#pragma once

#include <chrono>

namespace ovra::extra {

/// `delay` after `time`, or the last time of the clock if the sum lies beyond it. A negative delay
/// counts as 0.
inline std::chrono::steady_clock::time_point later(std::chrono::steady_clock::time_point time,
                                                   std::chrono::milliseconds delay) {
    using std::chrono::milliseconds;
    constexpr auto LAST = std::chrono::steady_clock::time_point::max();
    if (delay <= milliseconds::zero()) {
        return time;
    }
    bool const isReached = delay < std::chrono::duration_cast<milliseconds>(LAST - time);
    return isReached ? time + delay : LAST;
}

}  // namespace ovra::extra
