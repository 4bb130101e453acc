#include <algorithm>
#include <cstdint>
#include <exception>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include <ovra/concurrent/SettledTasks.h>

namespace ovra::concurrent {

static_assert(std::atomic<SubmittedTask*>::is_always_lock_free &&
              std::atomic<SettledTasks*>::is_always_lock_free);

SettledTasks::~SettledTasks() {
    takeAll();
}

bool SettledTasks::add(QueuedTask& queued) try {
    SubmittedTask& task = *queued.task;
    std::lock_guard<std::mutex> const lock(task.mutex);
    if (task.settled != nullptr) {
        return false;
    }
    unsigned int const rank = task.rank;
    enter(queued, rank);
    task.settled = this;
    // From here on `setRank` tells. What it did before, also to a rank that was final when the task
    // was found to settle, is found here.
    if (task.rank != rank || !rule.isFinal(rank)) {
        noteNewRank(task);
    }
    return true;
} catch (std::exception const&) {
    return false;  // No memory, or a task that cannot be locked.
}

SettledTasks::Candidate SettledTasks::best() const {
    Candidate best;
    auto const consider = [&best](QueuedTask const& queued, Urgency const& urgency) {
        if (urgency > best.urgency) {
            best = {&queued, urgency};
        }
    };
    if (isOutOfOrder) {
        forEach([&](QueuedTask const& queued) {
            consider(queued, RankRule::urgencyOf(queued, RankRule::rankOf(queued)));
            rule.update(queued);
        });
        return best;
    }
    for (TaskLine const& line : places.lines) {
        if (!line.isEmpty()) {
            consider(line.front(), line.urgencyOf(line.front()));
        }
    }
    if (!places.strays.empty()) {
        consider(places.strays.begin()->queued, places.strays.begin()->urgency);
    }
    return best;
}

bool SettledTasks::isEmpty() const {
    return places.strays.empty() &&
           std::all_of(places.lines.begin(), places.lines.end(),
                       [](TaskLine const& line) { return line.isEmpty(); });
}

void SettledTasks::remove(SubmittedTask& task) {
    // Only under this queue's lock, which is held, does a task become settled here or cease to be.
    if (task.settled != this) {
        return;
    }
    std::size_t const place = task.settledPlace;  // Another queue's from the next step on.
    unsigned int const rank = task.settledRank;
    {
        std::lock_guard<std::mutex> const lock(task.mutex);
        task.settled = nullptr;
        if (std::exchange(task.hasNewRank, false)) {
            removeChanged(task);  // While no other queue can take it in, and put it on its stack.
        }
    }
    leave(task, place, rank);
}

SettledTasks::Places SettledTasks::takeAll() {
    forEach([](QueuedTask const& queued) {
        std::lock_guard<std::mutex> const lock(queued.task->mutex);
        queued.task->settled = nullptr;
        queued.task->hasNewRank = false;
    });
    changed = nullptr;
    return std::exchange(places, Places(rule));
}

void SettledTasks::rekeyChanged(std::vector<QueuedTask>& unsettled) {
    isOutOfOrder = false;
    if (changed == nullptr) {
        return;
    }
    SubmittedTask* task = changed.exchange(nullptr);
    while (task != nullptr) {
        SubmittedTask* const next = task->nextChanged;
        rekey(*task, unsettled);
        task = next;
    }
}

void SettledTasks::rekey(SubmittedTask& task, std::vector<QueuedTask>& unsettled) {
    {
        std::lock_guard<std::mutex> const lock(task.mutex);
        task.hasNewRank = false;  // What is set from here on is noted anew.
    }
    std::size_t const oldPlace = task.settledPlace;
    unsigned int const oldRank = task.settledRank;
    unsigned int const newRank = task.rank;
    try {
        if (!rule.isFinal(newRank)) {
            unsettled.push_back(entryOf(task));
            try {
                remove(task);
            } catch (std::system_error const&) {
                unsettled.pop_back();
                throw;
            }
        } else if (newRank != oldRank) {
            QueuedTask queued = entryOf(task);
            enter(queued, newRank);
            leave(task, oldPlace, oldRank);
        }
    } catch (std::bad_alloc const&) {
        isOutOfOrder = true;
        std::lock_guard<std::mutex> const lock(task.mutex);
        noteNewRank(task);  // Stays where it is for now; the next pick tries again.
    }
}

SettledTasks::Strays::const_iterator SettledTasks::strayOf(SubmittedTask const& task,
                                                           unsigned int rank) const {
    auto stray = places.strays.lower_bound(rank + static_cast<unsigned int>(task.uniqueIndex));
    while (stray->queued.task.get() != &task) {
        ++stray;  // Another task with the same score.
    }
    return stray;
}

SettledTasks::QueuedTask const& SettledTasks::entryOf(SubmittedTask const& task) const {
    return task.settledPlace < places.lines.size() ? places.lines[task.settledPlace].find(task)
                                                   : strayOf(task, task.settledRank)->queued;
}

void SettledTasks::enter(QueuedTask& queued, unsigned int rank) {
    SubmittedTask& task = *queued.task;
    std::size_t place = 0;
    while (place < places.lines.size() &&
           !(places.lines[place].hasRank(rank) && places.lines[place].append(queued))) {
        ++place;
    }
    if (place == places.lines.size()) {
        places.strays.insert(Stray{queued, RankRule::urgencyOf(queued, rank)});
    }
    task.settledPlace = static_cast<std::uint8_t>(place);
    task.settledRank = rank;
}

void SettledTasks::leave(SubmittedTask const& task, std::size_t place, unsigned int rank) {
    if (place < places.lines.size()) {
        places.lines[place].drop(task);
    } else {
        places.strays.erase(strayOf(task, rank));
    }
}

void SettledTasks::noteNewRank(SubmittedTask& task) {
    if (!task.hasNewRank) {
        task.hasNewRank = true;
        pushChanged(task);
    }
}

void SettledTasks::pushChanged(SubmittedTask& task) {
    task.nextChanged = changed;
    while (!changed.compare_exchange_weak(task.nextChanged, &task)) {
    }
}

void SettledTasks::removeChanged(SubmittedTask const& task) {
    SubmittedTask* other = changed.exchange(nullptr);
    while (other != nullptr) {
        SubmittedTask* const next = other->nextChanged;
        if (other != &task) {
            pushChanged(*other);
        }
        other = next;
    }
}

}  // namespace ovra::concurrent
