#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace ovra::concurrent {

class RankedTasks;
class SubmittedTask;

/// The rank of a task, and the place of the task in the `RankedTasks` that computes the rank.
///
/// Private to the library. Installed because every `SubmittedTask` holds one.
struct RankedEntry {
    /// Set in `rank` while the rank is computed from the other bits, the rank given at `since`.
    static constexpr unsigned int COMPUTED = 0x80000000u;

    RankedEntry(unsigned int initialRank, std::int32_t uniqueIndex)
        : rank(initialRank), index(uniqueIndex) {}

    bool isComputed() const { return (rank & COMPUTED) != 0; }
    unsigned int given() const { return rank & ~COMPUTED; }

    std::atomic<unsigned int> rank;
    std::int32_t const index;
    std::atomic<bool> wasAdded{false};  // To any queue.

    // Set once, before the rank is computed for the first time.
    std::shared_ptr<RankedTasks> home;

    // Guarded by the lock of `home`.
    std::uint8_t list = 0;
    std::uint64_t since = 0;  // The number of picks when the rank was given.
    std::uint64_t order = 0;  // Counts up as tasks are added.
    RankedEntry* previous = nullptr;
    RankedEntry* next = nullptr;
    std::shared_ptr<SubmittedTask> task;  // The task itself, while it is in `home`.
};

}  // namespace ovra::concurrent
