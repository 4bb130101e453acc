#include <tests/support/SteadyClock.h>

#include <time.h>

#include <tests/support/NextFunction.h>

namespace ovra::test {

std::atomic<std::int64_t> clockMs{-1};

}  // namespace ovra::test

extern "C" __attribute__((visibility("default"))) __attribute__((no_sanitize("thread"))) int
clock_gettime(clockid_t clock, struct timespec* time) noexcept {
    std::int64_t const now = ovra::test::clockMs.load();
    if (clock == CLOCK_MONOTONIC && now >= 0) {
        time->tv_sec = static_cast<time_t>(now / 1000);
        time->tv_nsec = static_cast<long>(now % 1000 * 1000000);
        return 0;
    }
    static auto* const real =
        ovra::test::nextFunction<int(clockid_t, struct timespec*)>("clock_gettime");
    return real(clock, time);
}
