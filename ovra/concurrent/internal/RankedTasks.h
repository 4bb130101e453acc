#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <set>

#include <ovra/concurrent/internal/RankedEntry.h>

namespace ovra::concurrent {

/// What tasks are compared by: the larger score runs first, the later added of two equal ones.
/// A score of 0 is never chosen.
struct SortKey {
    unsigned int score = 0;
    std::uint64_t order = std::numeric_limits<std::uint64_t>::max();
    RankedEntry* entry = nullptr;

    bool operator>(SortKey const& other) const {
        return score != other.score ? score > other.score : order > other.order;
    }
};

/// The tasks of a queue whose ranks follow a formula: the shortcut that saves a pick the scan.
///
/// The strategies of the library keep every rank, or double every rank at each pick, up to the
/// highest. So a rank is computed from the rank that was given and the number of picks since. And a
/// task that is older than another, and has no smaller a rank, stays ahead of it at every pick. The
/// tasks stand in lists in which each stays ahead of the next: a pick compares their first ones.
/// Tasks of one priority arrive in such an order. One that fits into no list, because its rank was
/// changed, is compared at each pick until its rank is final, and then stands in a set.
///
/// Private to the library. *Threads*: thread-safe. The lock is a leaf. The queue's lock comes
/// before it and guards which tasks are here, so `isEmpty()` takes none.
class RankedTasks {
public:
    explicit RankedTasks(bool doublesRanks) : doubles(doublesRanks) {}
    RankedTasks(RankedTasks const&) = delete;
    RankedTasks& operator=(RankedTasks const&) = delete;
    ~RankedTasks() = default;

    /// Takes in a task that was never added before. `self` is this container.
    void insert(std::shared_ptr<RankedTasks> const& self, RankedEntry& entry,
                std::shared_ptr<SubmittedTask> task, std::uint64_t order);
    /// Removes a task that the caller holds another reference to.
    void erase(RankedEntry& entry);
    /// Removes all. They are linked by `next`, for the caller to destroy where no lock is held.
    /// Needs no memory.
    RankedEntry* eraseAll();
    bool isEmpty() const { return size == 0; }
    bool holds(RankedEntry const& entry) const {
        return entry.isComputed() && entry.home.get() == this;
    }

    /// Says how far the scan of a pick has come: what is newer than `order` was compared and had
    /// its rank updated.
    void scanTo(std::uint64_t order);
    /// Ends a pick. Removes and returns the best task, if it is better than what the scan found.
    std::shared_ptr<SubmittedTask> pick(SortKey const& scanned);

    /// The rank of a task that was ever here.
    unsigned int rankOf(RankedEntry const& entry) const;
    /// Gives a task the rank that `newRank()` returns under the lock. False if it is not here.
    template <typename NewRank>
    bool setRank(RankedEntry& entry, NewRank const& newRank) {
        std::lock_guard<std::mutex> const lock(mutex);
        if (!entry.isComputed()) {
            return false;
        }
        change(entry, newRank());
        return true;
    }

private:
    enum { CHAINS = 4, UNORDERED = CHAINS, LISTS, FINAL = LISTS };

    struct List {
        RankedEntry* first = nullptr;
        RankedEntry* last = nullptr;
        RankedEntry* negative = nullptr;  // Of a chain: no rank plus index before it is negative.
    };

    bool isUpdated(RankedEntry const& entry) const { return entry.order > scannedTo; }
    unsigned int rankAt(RankedEntry const& entry, std::uint64_t pickCount) const;
    std::int64_t sumAt(RankedEntry const& entry, std::uint64_t pickCount) const;
    SortKey keyOf(RankedEntry& entry) const;
    bool isFinal(RankedEntry const& entry) const;

    void change(RankedEntry& entry, unsigned int rank);
    void place(RankedEntry& entry);
    bool findPlace(List const& chain, RankedEntry const& entry, RankedEntry*& ahead) const;
    void link(RankedEntry& entry, std::size_t place, RankedEntry* ahead);
    void unlink(RankedEntry& entry);
    void skipNonNegative(List& chain) const;
    SortKey best();
    std::shared_ptr<SubmittedTask> take(RankedEntry& entry);

    bool const doubles;
    std::size_t size = 0;  // Guarded by the queue's lock.

    mutable std::mutex mutex;  // Guards the rest.
    std::uint64_t picks = 0;
    std::uint64_t scannedTo = std::numeric_limits<std::uint64_t>::max();
    SortKey passed;  // The best of what had its rank changed behind the scan.
    std::array<List, LISTS> lists;
    std::set<SortKey, std::greater<>> finals;
};

}  // namespace ovra::concurrent
