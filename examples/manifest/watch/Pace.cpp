#include "Pace.h"

#include <algorithm>

namespace manifest {

namespace {

constexpr std::chrono::milliseconds STEP(200);

}  // namespace

Pace::Pace(std::uint64_t bytesPerSecond) : rate(bytesPerSecond) {}

bool Pace::take(std::size_t bytes) {
    ++stepsTaken;
    if (rate == 0 || bytes == 0) {
        return !stopping;
    }
    std::chrono::duration<double> const cost(static_cast<double>(bytes) /
                                             static_cast<double>(rate));
    std::unique_lock<std::mutex> lock(mutex);
    nextFree = std::max(nextFree, Clock::now()) + std::chrono::ceil<Clock::duration>(cost);
    Clock::time_point const due = nextFree;
    for (auto now = Clock::now(); now < due && !stopping; now = Clock::now()) {
        stopped.wait_until(lock, std::min(due, now + STEP));
        ++stepsTaken;
    }
    return !stopping;
}

void Pace::stop() {
    {
        std::lock_guard<std::mutex> const lock(mutex);
        stopping = true;
    }
    stopped.notify_all();
}

bool Pace::isStopped() const {
    return stopping;
}

std::uint64_t Pace::steps() const {
    return stepsTaken;
}

}  // namespace manifest
