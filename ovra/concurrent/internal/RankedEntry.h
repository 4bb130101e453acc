#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <ovra/Export.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

class RankedTasks;
class SubmittedTask;

/// The rank of a task, and the place of the task in the `RankedTasks` that computes the rank.
///
/// Private to the library. Installed because every `SubmittedTask` holds one.
struct RankedEntry {
    /// Set in `rank` if the rank is computed, not stored. The other bits are then the rank given at
    /// pick `since`.
    static constexpr unsigned int COMPUTED = 0x80000000u;

    RankedEntry(TaskPriority initialPriority, unsigned int initialRank, std::int32_t uniqueIndex)
        : rank(initialRank), priority(initialPriority), index(uniqueIndex) {}
    OVRA_LOCAL ~RankedEntry();

    bool isComputed() const { return (rank & COMPUTED) != 0; }
    unsigned int given() const { return rank & ~COMPUTED; }

    std::atomic<unsigned int> rank;
    std::atomic<TaskPriority> priority;
    std::int32_t const index;
    std::atomic<bool> wasAdded{false};  // To a queue that computes ranks.
    std::uint8_t list = 0;
    // Those under way. Meanwhile the rank may be below that of the priority.
    std::atomic<std::uint16_t> priorityChanges{0};

    // Set once, before COMPUTED. The entry holds a share of it until the task is destroyed.
    RankedTasks* home = nullptr;

    // Guarded by the lock of `home`, as is `list`.
    std::uint64_t since = 0;  // The number of picks when the rank was given.
    std::uint64_t order = 0;  // Counts up as tasks are added.
    RankedEntry* previous = nullptr;
    RankedEntry* next = nullptr;
    std::shared_ptr<SubmittedTask> task;  // The task itself, while it is in `home`.
};

}  // namespace ovra::concurrent
