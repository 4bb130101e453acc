#pragma once

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include <tests/support/Deadline.h>

namespace ovra::test {

/// Whether a sanitizer slows everything down.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool SANITIZED = true;
#else
inline constexpr bool SANITIZED = false;
#endif
#else
inline constexpr bool SANITIZED = false;
#endif

/// The number of rounds for a test whose worth grows with them: `rounds` times OVRA_TEST_SCALE, by
/// default 1, or a tenth under a sanitizer; at least 1.
inline int scaled(int rounds) {
    double const scale = environmentNumber("OVRA_TEST_SCALE", SANITIZED ? 0.1 : 1.0);
    double const product = rounds * scale;
    return product < 1 ? 1 : static_cast<int>(product);
}

/// Ends the process with a message if this object still exists at the deadline. The deadline only
/// bounds a hang: no result may depend on its length.
class Watchdog {
public:
    explicit Watchdog(unsigned int seconds = deadlineSeconds()) {
        struct sigaction action = {};
        action.sa_handler = &Watchdog::bark;
        sigaction(SIGALRM, &action, &previous);
        alarm(seconds);
    }
    Watchdog(Watchdog const&) = delete;
    Watchdog& operator=(Watchdog const&) = delete;
    ~Watchdog() {
        alarm(0);
        sigaction(SIGALRM, &previous, nullptr);
    }

private:
    static void bark(int) {
        constexpr std::string_view message = "The test hung: its deadline has passed.\n";
        [[maybe_unused]] auto const written = write(STDERR_FILENO, message.data(), message.size());
        std::abort();
    }

    struct sigaction previous = {};
};

/// The base of every suite that could hang.
class BoundedTest : public ::testing::Test {
protected:
    /// For each round of a long test, so that the deadline bounds one round.
    static void restartDeadline() { alarm(deadlineSeconds()); }

private:
    Watchdog watchdog;
};

/// Yields to other threads until `condition` holds. For what no gate can show, such as that another
/// thread has released an object; a watchdog bounds it.
template <typename Condition>
void yieldUntil(Condition condition) {
    while (!condition()) {
        std::this_thread::yield();
    }
}

}  // namespace ovra::test
