#pragma once

#include <time.h>

#include <chrono>

namespace ovra::bench {

using Clock = std::chrono::steady_clock;

inline double secondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

inline double secondsOn(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// The processor time that all threads of the process have used, or the calling thread alone.
/// Others who keep the machine busy hardly change it.
inline double processorSeconds() {
    return secondsOn(CLOCK_PROCESS_CPUTIME_ID);
}
inline double threadSeconds() {
    return secondsOn(CLOCK_THREAD_CPUTIME_ID);
}

/// Time and the calling thread's processor time, summed over what is measured of each iteration.
class Stopwatch {
public:
    void start() {
        cpuBegin = threadSeconds();
        begin = Clock::now();
    }
    /// Returns the seconds since `start()`.
    double stop() {
        double const passed = secondsBetween(begin, Clock::now());
        seconds += passed;
        cpuSeconds += threadSeconds() - cpuBegin;
        return passed;
    }
    double nanoseconds(double rounds) const { return seconds * 1e9 / rounds; }
    double cpuNanoseconds(double rounds) const { return cpuSeconds * 1e9 / rounds; }

private:
    Clock::time_point begin;
    double cpuBegin = 0;
    double seconds = 0;
    double cpuSeconds = 0;
};

}  // namespace ovra::bench
