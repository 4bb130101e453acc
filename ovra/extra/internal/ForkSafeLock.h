#pragma once

#include <atomic>
#include <cstdint>

namespace ovra::extra {

/// A lock that is open in a forked process, whichever thread held it in the parent at that moment.
///
/// `fork` never waits for the lock. So a child may find the guarded data half changed: that data
/// must be usable in every intermediate state.
///
/// *Threads*: a thread that waits sleeps. Not recursive.
class ForkSafeLock {
public:
    /// May throw `std::bad_alloc`.
    ForkSafeLock();
    ForkSafeLock(ForkSafeLock const&) = delete;
    ForkSafeLock& operator=(ForkSafeLock const&) = delete;
    ~ForkSafeLock() = default;

    void lock() noexcept;
    void unlock() noexcept;

private:
    void lockSlowly(std::uint32_t seen) noexcept;

    // The state, and the fork count of the process that set it. To a process with another count,
    // the lock is open.
    std::atomic<std::uint32_t> word;
};

}  // namespace ovra::extra
