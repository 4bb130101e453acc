#include <ovra/extra/internal/Clock.h>

namespace ovra::extra {

Clock& Clock::system() {
    static Clock clock;  // Trivial to make and to destroy.
    return clock;
}

Clock::Time Clock::now() const {
    return std::chrono::steady_clock::now();
}

void Clock::wait(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, Time end) {
    condition.wait_until(lock, end);
}

}  // namespace ovra::extra
