#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <set>

#include <ovra/concurrent/internal/RankedEntry.h>

namespace ovra::concurrent {

class TaskRankingStrategy;

/// What tasks are compared by. The larger score runs first; of two equal scores, the task added
/// later. The default stands for no task, and is larger than the key of any task with score 0.
struct SortKey {
    unsigned int score = 0;
    std::uint64_t order = std::numeric_limits<std::uint64_t>::max();
    RankedEntry* entry = nullptr;

    bool operator<(SortKey const& other) const {
        return score != other.score ? score < other.score : order < other.order;
    }
};

/// The tasks of a queue whose ranks follow a formula: the shortcut that saves a pick the scan.
///
/// The library's strategies keep every rank, or double every rank at each pick, up to the highest.
/// So a rank follows from the rank given and the number of picks since. A task that is older than
/// another, and whose rank is no smaller, stays ahead of it at every later pick. Tasks of one
/// priority arrive in that order.
///
/// The tasks are linked in chains, in which each task stays ahead of the next. From each chain, a
/// pick compares the first task and the first task whose sum of rank and index is negative. A task
/// that fits into no chain is compared at each pick until its rank is final; then it joins a set.
///
/// Private to the library. *Threads*: Thread-safe. The lock is a leaf. The queue's lock comes
/// before it and guards which tasks are here.
class RankedTasks {
public:
    /// Owned by its maker, and by every task that was ever here. A null `strategy` keeps ranks.
    explicit RankedTasks(TaskRankingStrategy const* strategy);
    /// Releases one owner's share. The last release destroys the container.
    void release() {
        if (--owners == 0) {
            delete this;
        }
    }

    /// Takes in a task whose ranks follow the formula. Returns false, and leaves `task`, in three
    /// cases: the task or the strategy may have rules of its own; the task was added before; its
    /// rank is or may be below that of its priority, and the formula does not clamp.
    bool insert(std::shared_ptr<SubmittedTask>& task, std::uint64_t order);
    /// Removes all tasks without allocating. Returns them linked by `next`, for the caller to
    /// destroy without a lock.
    RankedEntry* eraseAll() {
        std::lock_guard<std::mutex> const lock(mutex);
        size = 0;
        return unlinkAll(0);
    }
    bool isEmpty() const { return size == 0; }

    /// Notes how far the scan of a pick has come: every task newer than `order` has been compared,
    /// and its rank updated. If an exception ends the scan, these tasks keep the updated ranks.
    void scanTo(std::uint64_t order);
    /// Ends a pick: compares the best task here with `scanned`, the key of the task that the scan
    /// found. If the one here is better, removes it and puts it into `found`.
    void pick(SortKey const& scanned, std::shared_ptr<SubmittedTask>& found);

    /// The rank of a task that was ever here.
    unsigned int rankOf(RankedEntry const& entry) const {
        std::lock_guard<std::mutex> const lock(mutex);
        return entry.isComputed() ? computeRank(entry, isUpdated(entry)) : entry.given();
    }
    /// Gives a task a rank and, if not null, a priority. False if the task is not here.
    bool setRank(RankedEntry& entry, unsigned int rank, TaskPriority const* priority);

private:
    static constexpr std::uint32_t HIGHEST_RANK = 0x7fffffff;
    static constexpr std::uint64_t MAX_DOUBLINGS = 31;  // From the least rank to the highest.
    static constexpr int LOOK_BACK = 8;  // Threads that submit at once may add out of order.
    static constexpr std::uint8_t UNORDERED = 4;  // The lists before are chains.
    static constexpr std::uint8_t FINAL = 5;

    struct List {
        RankedEntry* first = nullptr;
        RankedEntry* last = nullptr;
        RankedEntry* negative = nullptr;  // No task ahead of it has a negative sum.
    };

    bool isUpdated(RankedEntry const& entry) const { return entry.order > scan.to; }
    unsigned int computeRank(RankedEntry const& entry, bool updated = false) const;
    bool isFinal(RankedEntry const& entry) const {
        return !doubles || computeRank(entry) == HIGHEST_RANK;
    }
    std::int64_t sumOf(RankedEntry const& entry) const {
        return std::int64_t{computeRank(entry)} + entry.index;
    }
    SortKey keyOf(RankedEntry& entry) const {  // The score is the sum modulo 2^32.
        return {static_cast<unsigned int>(sumOf(entry)), entry.order, &entry};
    }
    void enlist(RankedEntry& entry);
    void place(RankedEntry& entry);
    void link(RankedEntry& entry, std::uint8_t place, RankedEntry* ahead);
    void unlink(RankedEntry& entry);
    SortKey best();
    RankedEntry* unlinkAll(unsigned int flag);

    bool const doubles;
    bool const computes;
    std::atomic<unsigned int> owners{1};
    std::uint64_t size = 0;  // Guarded by the queue's lock.

    mutable std::mutex mutex;  // Guards the rest.
    std::uint64_t picks = 0;
    struct {
        std::uint64_t to = std::numeric_limits<std::uint64_t>::max();
        SortKey passed;  // The best old key of tasks that changed after the scan passed them.
    } scan;
    std::array<List, UNORDERED + 1> lists;
    std::set<SortKey> finals;
};

}  // namespace ovra::concurrent
