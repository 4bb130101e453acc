#include <ovra/concurrent/internal/RankedTasks.h>

#include <algorithm>
#include <new>
#include <utility>

namespace ovra::concurrent {

namespace {

constexpr std::uint64_t HIGHEST_RANK = 0x7fffffff;

// As many doublings take the least rank to the highest.
constexpr std::uint64_t MAX_DOUBLINGS = 31;

// How many tasks at the end of a list are compared by age. Threads that submit at the same time may
// add their tasks in another order than they made them.
constexpr int LOOK_BACK = 8;

}  // namespace

void RankedTasks::insert(std::shared_ptr<RankedTasks> const& self, RankedEntry& entry,
                         std::shared_ptr<SubmittedTask> task, std::uint64_t order) {
    std::lock_guard<std::mutex> const lock(mutex);
    entry.home = self;
    entry.task = std::move(task);
    entry.order = order;
    entry.since = picks;
    entry.rank |= RankedEntry::COMPUTED;
    place(entry);
    ++size;
}

unsigned int RankedTasks::rankOf(RankedEntry const& entry) const {
    std::lock_guard<std::mutex> const lock(mutex);
    return entry.isComputed() ? rankAt(entry, isUpdated(entry) ? picks + 1 : picks)
                              : entry.rank.load();
}

// The formula.
unsigned int RankedTasks::rankAt(RankedEntry const& entry, std::uint64_t pickCount) const {
    unsigned int const given = entry.given();
    if (!doubles || pickCount <= entry.since) {
        return given;
    }
    std::uint64_t const doublings = std::min(pickCount - entry.since, MAX_DOUBLINGS);
    return static_cast<unsigned int>(std::min(std::uint64_t{given} << doublings, HIGHEST_RANK));
}

std::int64_t RankedTasks::sumAt(RankedEntry const& entry, std::uint64_t pickCount) const {
    return std::int64_t{rankAt(entry, pickCount)} + entry.index;
}

SortKey RankedTasks::keyOf(RankedEntry& entry) const {
    return {static_cast<unsigned int>(sumAt(entry, picks)), entry.order, &entry};
}

bool RankedTasks::isFinal(RankedEntry const& entry) const {
    return !doubles || rankAt(entry, picks) == HIGHEST_RANK;
}

void RankedTasks::change(RankedEntry& entry, unsigned int rank) {
    bool const updated = isUpdated(entry);
    if (updated && entry.since <= picks) {
        // This pick compares the rank that the scan found, and does not double the new one.
        passed =
            std::max(passed, keyOf(entry), [](auto& left, auto& right) { return right > left; });
    }
    unlink(entry);
    entry.rank = rank | RankedEntry::COMPUTED;
    entry.since = updated ? picks + 1 : picks;
    if (updated) {
        link(entry, UNORDERED, nullptr);
    } else {
        place(entry);
    }
}

// Of the chains that the task fits into, takes the one where it follows the least rank: so tasks of
// one rank share a chain, and there is a chain for each priority.
void RankedTasks::place(RankedEntry& entry) {
    std::size_t chosen = UNORDERED;
    RankedEntry* ahead = nullptr;
    std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
    for (std::size_t chain = 0; chain < CHAINS; ++chain) {
        RankedEntry* candidate = nullptr;
        if (findPlace(lists[chain], entry, candidate)) {
            std::uint64_t const rank =
                candidate != nullptr ? rankAt(*candidate, picks) : HIGHEST_RANK + 1;
            if (rank < least) {
                chosen = chain;
                ahead = candidate;
                least = rank;
            }
        }
    }
    if (chosen == UNORDERED && isFinal(entry)) {
        try {
            finals.insert(keyOf(entry));
            entry.list = FINAL;
            return;
        } catch (std::bad_alloc const&) {
            // Compared at each pick, and tried again.
        }
    }
    link(entry, chosen, ahead);
}

// Whether the task can stand in the chain: behind `ahead`, or first.
bool RankedTasks::findPlace(List const& chain, RankedEntry const& entry,
                            RankedEntry*& ahead) const {
    ahead = chain.last;
    for (int steps = 0; ahead != nullptr && ahead->index <= entry.index; ahead = ahead->previous) {
        if (++steps > LOOK_BACK) {
            ahead = nullptr;
            break;
        }
    }
    RankedEntry const* const behind = ahead != nullptr ? ahead->next : chain.first;
    unsigned int const rank = rankAt(entry, picks);
    return (ahead == nullptr || rankAt(*ahead, picks) >= rank) &&
           (behind == nullptr || (behind->index < entry.index && rankAt(*behind, picks) <= rank));
}

void RankedTasks::link(RankedEntry& entry, std::size_t place, RankedEntry* ahead) {
    List& list = lists[place];
    entry.list = static_cast<std::uint8_t>(place);
    entry.previous = ahead;
    entry.next = ahead != nullptr ? ahead->next : list.first;
    (entry.previous != nullptr ? entry.previous->next : list.first) = &entry;
    (entry.next != nullptr ? entry.next->previous : list.last) = &entry;
    skipNonNegative(list);
    if (entry.next == list.negative && sumAt(entry, picks) < 0) {
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
    if (list.negative == &entry) {
        list.negative = entry.next;
    }
}

void RankedTasks::skipNonNegative(List& chain) const {
    while (chain.negative != nullptr && sumAt(*chain.negative, picks) >= 0) {
        chain.negative = chain.negative->next;
    }
}

void RankedTasks::scanTo(std::uint64_t order) {
    if (!isEmpty()) {
        std::lock_guard<std::mutex> const lock(mutex);
        scannedTo = order;
    }
}

// Along a chain, rank plus index falls. A score is this sum modulo 2^32: largest for the first task
// whose sum is negative, or else for the first task.
SortKey RankedTasks::best() {
    SortKey best = std::exchange(passed, SortKey());
    auto const consider = [&](RankedEntry* entry) {
        if (entry != nullptr) {
            if (SortKey const key = keyOf(*entry); key > best) {
                best = key;
            }
        }
    };
    RankedEntry* next = nullptr;
    for (RankedEntry* entry = lists[UNORDERED].first; entry != nullptr; entry = next) {
        next = entry->next;
        if (entry->since > picks) {
            continue;  // Was compared before its rank was changed.
        }
        if (isFinal(*entry)) {
            unlink(*entry);
            place(*entry);
        }
        consider(entry);
    }
    for (std::size_t chain = 0; chain < CHAINS; ++chain) {
        skipNonNegative(lists[chain]);
        consider(lists[chain].first);
        consider(lists[chain].negative);
    }
    if (!finals.empty()) {
        consider(finals.begin()->entry);
    }
    return best;
}

std::shared_ptr<SubmittedTask> RankedTasks::pick(SortKey const& scanned) {
    std::lock_guard<std::mutex> const lock(mutex);
    SortKey const chosen = best();
    ++picks;
    scannedTo = std::numeric_limits<std::uint64_t>::max();
    if (!(chosen > scanned)) {
        return nullptr;
    }
    return take(*chosen.entry);
}

void RankedTasks::erase(RankedEntry& entry) {
    std::lock_guard<std::mutex> const lock(mutex);
    take(entry).reset();
}

std::shared_ptr<SubmittedTask> RankedTasks::take(RankedEntry& entry) {
    unlink(entry);
    entry.rank = rankAt(entry, picks);
    --size;
    return std::move(entry.task);
}

RankedEntry* RankedTasks::eraseAll() {
    std::lock_guard<std::mutex> const lock(mutex);
    RankedEntry* all = nullptr;
    auto const release = [&](RankedEntry& entry) {
        entry.rank = rankAt(entry, picks);
        entry.next = std::exchange(all, &entry);
    };
    for (List const& list : lists) {
        for (RankedEntry* entry = list.first; entry != nullptr;) {
            release(*std::exchange(entry, entry->next));
        }
    }
    for (SortKey const& key : finals) {
        release(*key.entry);
    }
    lists = {};
    finals.clear();
    size = 0;
    return all;
}

}  // namespace ovra::concurrent
