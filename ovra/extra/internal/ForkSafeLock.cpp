#include <ovra/extra/internal/ForkSafeLock.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ovra/extra/internal/ForkCount.h>
#include <ovra/extra/internal/KeptErrno.h>

namespace ovra::extra {

namespace {

constexpr std::uint32_t OPEN = 0;
constexpr std::uint32_t LOCKED = 1;
constexpr std::uint32_t AWAITED = 2;  // Locked, and somebody may be waiting.

// The word for the state `how`, set by this process.
std::uint32_t here(std::uint32_t how) noexcept {
    return forkCount() << 2 | how;
}

}  // namespace

ForkSafeLock::ForkSafeLock() : word(here(OPEN)) {
    countForks();
}

void ForkSafeLock::lock() noexcept {
    std::uint32_t seen = here(OPEN);
    if (!word.compare_exchange_strong(seen, here(LOCKED), std::memory_order_acquire)) {
        lockSlowly(seen);
    }
}

void ForkSafeLock::lockSlowly(std::uint32_t seen) noexcept {
    KeptErrno const keptErrno;
    // A thread that has waited cannot know whether others still wait, so it locks as if they did.
    for (;;) {
        if (seen == here(AWAITED)) {
            syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
            seen = word.load(std::memory_order_relaxed);
            continue;
        }
        bool const isHeld = seen == here(LOCKED);
        if (word.compare_exchange_weak(seen, here(AWAITED), std::memory_order_acquire)) {
            if (!isHeld) {
                return;
            }
            seen = here(AWAITED);
        }
    }
}

void ForkSafeLock::unlock() noexcept {
    if (word.exchange(here(OPEN), std::memory_order_release) == here(AWAITED)) {
        KeptErrno const keptErrno;
        syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

}  // namespace ovra::extra
