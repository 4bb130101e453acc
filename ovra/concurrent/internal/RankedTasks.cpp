#include <ovra/concurrent/internal/RankedTasks.h>

#include <algorithm>
#include <new>
#include <utility>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/InitialRank.h>
#include <ovra/concurrent/internal/IsExactly.h>

namespace ovra::concurrent {

RankedTasks::RankedTasks(TaskRankingStrategy const* strategy)
    : doubles(strategy != nullptr && isExactly<NoStarveTaskRankingStrategy>(*strategy)),
      computes(doubles || strategy == nullptr ||
               isExactly<HighestPriorityTaskRankingStrategy>(*strategy)) {}

unsigned int RankedTasks::computeRank(RankedEntry const& entry, bool updated) const {
    std::uint64_t const pickCount = updated ? picks + 1 : picks;
    if (!doubles || pickCount <= entry.since) {
        return entry.given();
    }
    std::uint64_t const doublings = std::min(pickCount - entry.since, MAX_DOUBLINGS);
    std::uint64_t const rank = std::uint64_t{entry.given()} << doublings;
    return static_cast<unsigned int>(std::min<std::uint64_t>(rank, HIGHEST_RANK));
}

bool RankedTasks::insert(std::shared_ptr<SubmittedTask>& task, std::uint64_t order) {
    RankedEntry& entry = task->rankedEntry();
    if (!computes || !isExactly<SubmittedTask>(*task) || entry.wasAdded.exchange(true)) {
        return false;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    ++owners;
    entry.home = this;
    entry.order = order;
    entry.rank |= RankedEntry::COMPUTED;
    if (entry.priorityChanges != 0 || entry.given() < initialRankOf(entry.priority)) {
        entry.rank = entry.given();
        return false;
    }
    entry.task = std::move(task);
    enlist(entry);
    ++size;
    return true;
}

bool RankedTasks::setRank(RankedEntry& entry, unsigned int rank, TaskPriority const* priority) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (!entry.isComputed()) {
        return false;
    }
    if (isUpdated(entry) && entry.since <= picks) {
        scan.passed = std::max(scan.passed, keyOf(entry));  // As this pick has compared it.
    }
    unlink(entry);
    if (priority != nullptr) {
        entry.priority = *priority;
    }
    entry.rank = clampedRank(rank, entry.priority) | RankedEntry::COMPUTED;
    enlist(entry);
    return true;
}

// A rank that is given behind the scan counts from the next pick on.
void RankedTasks::enlist(RankedEntry& entry) {
    bool const updated = isUpdated(entry);
    entry.since = updated ? picks + 1 : picks;
    updated ? link(entry, UNORDERED, nullptr) : place(entry);
}

// Of the chains that the task fits into, takes the one where the task ahead of it has the least
// rank. So tasks of one rank share a chain, and there is a chain for each priority.
void RankedTasks::place(RankedEntry& entry) {
    unsigned int const rank = computeRank(entry);
    std::uint8_t chosen = UNORDERED;
    RankedEntry* chosenAhead = nullptr;
    unsigned int least = std::numeric_limits<unsigned int>::max();
    for (std::uint8_t chain = 0; chain < UNORDERED && least != rank; ++chain) {
        RankedEntry* ahead = lists[chain].last;
        for (int steps = 0; ahead != nullptr && ahead->index <= entry.index; ++steps) {
            ahead = steps < LOOK_BACK ? ahead->previous : nullptr;
        }
        RankedEntry const* const behind = ahead != nullptr ? ahead->next : lists[chain].first;
        unsigned int const rankAhead = ahead != nullptr ? computeRank(*ahead) : HIGHEST_RANK + 1;
        if (rankAhead >= rank && rankAhead < least &&
            (behind == nullptr || (behind->index < entry.index && computeRank(*behind) <= rank))) {
            chosen = chain;
            chosenAhead = ahead;
            least = rankAhead;
        }
    }
    if (chosen == UNORDERED && isFinal(entry)) {
        try {
            finals.insert(keyOf(entry));
            entry.list = FINAL;
            return;
        } catch (std::bad_alloc const&) {  // The next pick tries again.
        }
    }
    link(entry, chosen, chosenAhead);
}

void RankedTasks::link(RankedEntry& entry, std::uint8_t place, RankedEntry* ahead) {
    List& list = lists[place];
    entry.list = place;
    entry.previous = ahead;
    entry.next = ahead != nullptr ? ahead->next : list.first;
    (ahead != nullptr ? ahead->next : list.first) = &entry;
    (entry.next != nullptr ? entry.next->previous : list.last) = &entry;
    if (entry.next == list.negative && sumOf(entry) < 0) {
        list.negative = &entry;
    }
}

void RankedTasks::unlink(RankedEntry& entry) {
    if (entry.list == FINAL) {
        finals.erase(keyOf(entry));
        return;
    }
    List& list = lists[entry.list];
    (entry.previous != nullptr ? entry.previous->next : list.first) = entry.next;
    (entry.next != nullptr ? entry.next->previous : list.last) = entry.previous;
    list.negative = list.negative == &entry ? entry.next : list.negative;
}

void RankedTasks::scanTo(std::uint64_t order) {
    if (isEmpty()) {
        return;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    if (order >= scan.to) {  // An exception has ended the last scan.
        for (RankedEntry* entry = unlinkAll(RankedEntry::COMPUTED); entry != nullptr;) {
            place(*std::exchange(entry, entry->next));
        }
    }
    scan.to = order;
}

// Sums decrease along a chain, and negative ones wrap to large scores. So the largest score of a
// chain is that of its first task or that of its first negative sum.
SortKey RankedTasks::best() {
    SortKey best = scan.passed;
    for (RankedEntry* entry = lists[UNORDERED].first; entry != nullptr;) {
        RankedEntry& current = *std::exchange(entry, entry->next);
        if (current.since > picks) {
            continue;  // Its rank changed after the scan passed it.
        }
        best = std::max(best, keyOf(current));
        if (isFinal(current)) {
            unlink(current);
            place(current);
        }
    }
    for (std::uint8_t chain = 0; chain < UNORDERED; ++chain) {
        auto& [first, last, negative] = lists[chain];
        while (negative != nullptr && sumOf(*negative) >= 0) {
            negative = negative->next;
        }
        best = first != nullptr ? std::max(best, keyOf(*first)) : best;
        best = negative != nullptr ? std::max(best, keyOf(*negative)) : best;
    }
    return finals.empty() ? best : std::max(best, *finals.rbegin());
}

void RankedTasks::pick(SortKey const& scanned, std::shared_ptr<SubmittedTask>& found) {
    std::lock_guard<std::mutex> const lock(mutex);
    RankedEntry* const entry = std::max(scanned, best()).entry;
    ++picks;
    scan = {};
    if (entry == nullptr || !entry->isComputed() || entry->home != this) {
        return;
    }
    unlink(*entry);
    entry->rank = computeRank(*entry);
    --size;
    found = std::move(entry->task);
}

RankedEntry* RankedTasks::unlinkAll(unsigned int flag) {
    for (SortKey const& key : finals) {
        link(*key.entry, UNORDERED, nullptr);
    }
    finals.clear();
    RankedEntry* all = nullptr;
    for (List const& list : std::exchange(lists, {})) {
        for (RankedEntry* entry = list.last; entry != nullptr; entry = entry->previous) {
            entry->rank = computeRank(*entry, isUpdated(*entry)) | flag;
            entry->since = picks;
            entry->next = std::exchange(all, entry);
        }
    }
    scan = {};
    return all;
}

}  // namespace ovra::concurrent
