#pragma once

#include <atomic>
#include <cstdint>

namespace ovra::extra {

/// A lock that is open in a forked process, whichever thread held it in the parent at that moment.
///
/// `fork` never waits for it. So what it guards may be found half changed by a child: it must be
/// usable in every state on the way.
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

    // How it stands, and the fork count of the process in which it was put so. Of another process
    // it is open.
    std::atomic<std::uint32_t> word;
};

}  // namespace ovra::extra
