#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include <ovra/concurrent/SettledTasks.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

static_assert(std::atomic<SettledPlace const*>::is_always_lock_free);

SettledPlace::SettledPlace(SubmittedTasksQueue::QueuedTask const& task, SettledTasks& container)
    : queued(task), urgency(SettledTasks::urgencyOf(task)), home(&container) {}

void SettledPlace::noteNewRank() const {
    if (!hasNewRank) {
        hasNewRank = true;
        home->pushChanged(*this);
    }
}

SettledTasks::SettledTasks(TaskRankingStrategy* queueStrategy)
    : strategy(queueStrategy), ranks(ranksUnder(queueStrategy)) {}

SettledTasks::~SettledTasks() {
    takeAll();
}

SettledTasks::Ranks SettledTasks::ranksUnder(TaskRankingStrategy const* queueStrategy) {
    if (queueStrategy == nullptr || isExactly<HighestPriorityTaskRankingStrategy>(*queueStrategy)) {
        return KEPT;
    }
    return isExactly<NoStarveTaskRankingStrategy>(*queueStrategy) ? DOUBLED : UNKNOWN;
}

bool SettledTasks::updateRank(QueuedTask const& queued) const {
    if (ranks == DOUBLED && queued.isPlain && queued.task->settled == nullptr) {
        // What the strategy does, without its calls.
        SubmittedTask& task = *queued.task;
        unsigned int const doubled = task.rank.load(std::memory_order_relaxed) * 2u;
        task.rank.store(SubmittedTask::clampedRank(doubled, task.priority),
                        std::memory_order_relaxed);
    } else if (strategy != nullptr) {
        strategy->updateRank(queued.task.get());
    }
    return isFinal(queued);
}

bool SettledTasks::isFinal(QueuedTask const& queued) const {
    if (!queued.isPlain || ranks == UNKNOWN) {
        return false;
    }
    return ranks == KEPT || rankOf(queued) == SubmittedTask::HIGHEST_CURRENT_RANK_VALUE;
}

bool SettledTasks::add(QueuedTask const& queued) {
    SubmittedTask& task = *queued.task;
    std::lock_guard<std::mutex> const lock(task.mutex);
    if (task.settled != nullptr) {
        return false;
    }
    try {
        task.settled = &*places.emplace(queued, *this).first;
    } catch (std::bad_alloc const&) {
        return false;
    }
    // From here on `setRank` tells. What it did before, also to a rank that was final when the
    // place was chosen, is found here.
    SettledPlace const* const place = task.settled;
    if (place->urgency.score != urgencyOf(queued).score || !isFinal(queued)) {
        place->noteNewRank();
    }
    return true;
}

void SettledTasks::remove(SubmittedTask& task) {
    SettledPlace const* place = nullptr;
    {
        std::lock_guard<std::mutex> const lock(task.mutex);
        place = task.settled;
        if (place == nullptr || place->home != this) {
            return;
        }
        task.settled = nullptr;
    }
    if (place->hasNewRank) {
        removeChanged(*place);
    }
    places.erase(places.find(*place));
}

SettledTasks::Places SettledTasks::takeAll() {
    for (SettledPlace const& place : places) {
        SubmittedTask& task = *place.queued.task;
        std::lock_guard<std::mutex> const lock(task.mutex);
        task.settled = nullptr;
    }
    changed = nullptr;
    Places taken;
    taken.swap(places);
    return taken;
}

void SettledTasks::rekeyChanged(std::vector<QueuedTask>& unsettled) {
    if (changed == nullptr) {
        return;
    }
    SettledPlace const* place = changed.exchange(nullptr);
    while (place != nullptr) {
        SettledPlace const* const next = place->nextChanged;
        rekey(*place, unsettled);
        place = next;
    }
}

void SettledTasks::rekey(SettledPlace const& place, std::vector<QueuedTask>& unsettled) {
    SubmittedTask& task = *place.queued.task;
    {
        std::lock_guard<std::mutex> const lock(task.mutex);
        place.hasNewRank = false;  // What is set from here on is noted anew.
    }
    auto node = places.extract(places.find(place));
    node.value().urgency = urgencyOf(place.queued);
    places.insert(std::move(node));

    if (!isFinal(place.queued)) {
        try {
            unsettled.push_back(place.queued);
            remove(task);
        } catch (std::bad_alloc const&) {
            std::lock_guard<std::mutex> const lock(task.mutex);
            place.noteNewRank();  // Stays here for now; the next pick tries again.
        }
    }
}

void SettledTasks::pushChanged(SettledPlace const& place) {
    place.nextChanged = changed;
    while (!changed.compare_exchange_weak(place.nextChanged, &place)) {
    }
}

void SettledTasks::removeChanged(SettledPlace const& place) {
    SettledPlace const* other = changed.exchange(nullptr);
    while (other != nullptr) {
        SettledPlace const* const next = other->nextChanged;
        if (other != &place) {
            pushChanged(*other);
        }
        other = next;
    }
}

}  // namespace ovra::concurrent
