#include <ovra/concurrent/internal/RankedTasks.h>

#include <algorithm>
#include <new>
#include <utility>

#include <ovra/concurrent/internal/InitialRank.h>

namespace ovra::concurrent {

unsigned int RankedTasks::rankAt(RankedEntry const& entry, std::uint64_t pickCount) const {
    if (!doubles || pickCount <= entry.since) {
        return entry.given();
    }
    std::uint64_t const doublings = std::min(pickCount - entry.since, MAX_DOUBLINGS);
    std::uint64_t const rank = std::uint64_t{entry.given()} << doublings;
    return static_cast<unsigned int>(std::min<std::uint64_t>(rank, HIGHEST_RANK));
}

unsigned int RankedTasks::rankOf(RankedEntry const& entry) const {
    std::lock_guard<std::mutex> const lock(mutex);
    return entry.isComputed() ? currentRank(entry) : entry.given();
}

bool RankedTasks::insert(RankedEntry& entry, std::shared_ptr<SubmittedTask>& task,
                         std::uint64_t order) {
    std::lock_guard<std::mutex> const lock(mutex);
    ++owners;
    entry.home = this;
    entry.since = picks;
    entry.order = order;
    entry.rank |= RankedEntry::COMPUTED;
    if (entry.given() < initialRankOf(entry.priority)) {
        entry.rank = entry.given();
        return false;
    }
    entry.task = std::move(task);
    place(entry);
    ++size;
    return true;
}

bool RankedTasks::setRank(RankedEntry& entry, std::function<unsigned int()> const& newRank) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (!entry.isComputed()) {
        return false;
    }
    bool const updated = isUpdated(entry);
    // As this pick has compared it.
    passed = updated && entry.since <= picks ? std::max(passed, keyOf(entry)) : passed;
    unlink(entry);
    entry.rank = newRank() | RankedEntry::COMPUTED;
    entry.since = updated ? picks + 1 : picks;
    updated ? link(entry, UNORDERED, nullptr) : place(entry);
    return true;
}

// Of the chains that the task fits into, takes the one where the task ahead of it has the least
// rank. So tasks of one rank share a chain, and there is a chain for each priority.
void RankedTasks::place(RankedEntry& entry) {
    unsigned int const rank = rankAt(entry, picks);
    std::uint8_t chosen = UNORDERED;
    RankedEntry* chosenAhead = nullptr;
    unsigned int least = std::numeric_limits<unsigned int>::max();
    for (std::uint8_t chain = 0; chain < UNORDERED && least != rank; ++chain) {
        RankedEntry* ahead = lists[chain].last;
        for (int steps = 0; ahead != nullptr && ahead->index <= entry.index; ++steps) {
            ahead = steps < LOOK_BACK ? ahead->previous : nullptr;
        }
        RankedEntry const* const behind = ahead != nullptr ? ahead->next : lists[chain].first;
        unsigned int const rankAhead = ahead != nullptr ? rankAt(*ahead, picks) : HIGHEST_RANK + 1;
        if (rankAhead >= rank && rankAhead < least &&
            (behind == nullptr ||
             (behind->index < entry.index && rankAt(*behind, picks) <= rank))) {
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
    skipNonNegative(list);
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

void RankedTasks::skipNonNegative(List& chain) const {
    while (chain.negative != nullptr && sumOf(*chain.negative) >= 0) {
        chain.negative = chain.negative->next;
    }
}

void RankedTasks::scanTo(std::uint64_t order) {
    if (!isEmpty()) {
        std::lock_guard<std::mutex> const lock(mutex);
        scannedTo = order;
    }
}

void RankedTasks::endScan() {
    std::lock_guard<std::mutex> const lock(mutex);
    for (RankedEntry* entry = unlinkAll(RankedEntry::COMPUTED); entry != nullptr;) {
        place(*std::exchange(entry, entry->next));
    }
}

// Sums decrease along a chain, and negative ones wrap to large scores. So the largest score of a
// chain is that of its first negative sum or, without one, that of its first task.
SortKey RankedTasks::best() {
    SortKey best = std::exchange(passed, SortKey());
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
        if (RankedEntry* const first = lists[chain].first; first != nullptr) {
            best = std::max(best, keyOf(*first));
            skipNonNegative(lists[chain]);
        }
        RankedEntry* const negative = lists[chain].negative;
        best = negative != nullptr ? std::max(best, keyOf(*negative)) : best;
    }
    return finals.empty() ? best : std::max(best, *finals.rbegin());
}

std::shared_ptr<SubmittedTask> RankedTasks::pick(SortKey const& scanned) {
    std::lock_guard<std::mutex> const lock(mutex);
    SortKey const chosen = std::max(scanned, best());
    ++picks;
    scannedTo = std::numeric_limits<std::uint64_t>::max();
    RankedEntry* const entry = chosen.entry;
    if (entry == nullptr || !entry->isComputed() || entry->home != this) {
        return nullptr;
    }
    unlink(*entry);
    entry->rank = rankAt(*entry, picks);
    --size;
    return std::move(entry->task);
}

RankedEntry* RankedTasks::unlinkAll(unsigned int flag) {
    for (SortKey const& key : finals) {
        link(*key.entry, UNORDERED, nullptr);
    }
    finals.clear();
    RankedEntry* all = nullptr;
    for (List const& list : std::exchange(lists, {})) {
        for (RankedEntry* entry = list.last; entry != nullptr; entry = entry->previous) {
            entry->rank = currentRank(*entry) | flag;
            entry->since = picks;
            entry->next = std::exchange(all, entry);
        }
    }
    scannedTo = std::numeric_limits<std::uint64_t>::max();
    passed = SortKey();
    return all;
}

RankedEntry* RankedTasks::eraseAll() {
    std::lock_guard<std::mutex> const lock(mutex);
    size = 0;
    return unlinkAll(0);
}

}  // namespace ovra::concurrent
