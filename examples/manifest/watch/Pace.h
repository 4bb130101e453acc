#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace manifest {

/// How fast files are read, and whether they still are to be read. Thread-safe.
class Pace {
public:
    /// So many bytes in a second at most, by all threads together; 0: as many as the disk gives.
    explicit Pace(std::uint64_t bytesPerSecond);

    /// To be called after each piece of work, with the bytes that were read for it: waits until the
    /// rate allows that many. False, and at once, after `stop()`.
    bool take(std::size_t bytes);

    /// Ends all work, and all waiting in `take`, for good.
    void stop();
    bool isStopped() const;

    /// Rises as long as work is done, or waits for the rate.
    std::uint64_t steps() const;

private:
    using Clock = std::chrono::steady_clock;

    std::uint64_t const rate;
    std::atomic<std::uint64_t> stepsTaken{0};
    std::atomic<bool> stopping{false};  // Set under `mutex`.

    std::mutex mutex;
    std::condition_variable stopped;
    Clock::time_point nextFree = Clock::time_point::min();  // Guarded by `mutex`.
};

}  // namespace manifest
