#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <typeinfo>

#include <ovra/concurrent/InitialRank.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

/// Whether `object` is a `Class` and nothing derived from it.
///
/// Compares where the type information lies and never looks into it: a host that is built without
/// leaves a null pointer in its classes.
template <typename Class, typename Object>
bool isExactly(Object const& object) {
    return &typeid(object) == &typeid(Class);
}

/// What a queue compares tasks by: the larger score runs first, the later added of two equal ones.
struct Urgency {
    unsigned int score = 0;
    std::uint64_t order = std::numeric_limits<std::uint64_t>::max();

    bool operator>(Urgency const& other) const {
        return score != other.score ? score > other.score : order > other.order;
    }
};

/// What a strategy does to the ranks of queued tasks: known for the strategies of the library, and
/// then done without a call, or asked.
///
/// Private to the queue. To be copied, so that a loop over many tasks has it at hand.
class RankRule {
public:
    using QueuedTask = SubmittedTasksQueue::QueuedTask;

    /// A null strategy leaves the ranks as they are.
    explicit RankRule(TaskRankingStrategy* ruling) : strategy(ruling), ranks(ranksUnder(ruling)) {}

    /// The rank that doubling ends with.
    static constexpr unsigned int LAST_DOUBLED = SubmittedTask::HIGHEST_CURRENT_RANK_VALUE;

    // Inlined always: g++ drops calls that do nothing else.
    [[gnu::always_inline]] static void prefetch(QueuedTask const& queued) {
        if (queued.task) {
            __builtin_prefetch(&queued.task->rank, 1);
        }
    }

    static unsigned int rankOf(SubmittedTask const& task) { return task.rank; }
    static unsigned int rankOf(QueuedTask const& queued) {
        return queued.isPlain ? rankOf(*queued.task) : queued.task->getRank();
    }
    static Urgency urgencyOf(QueuedTask const& queued, unsigned int rank) {
        return {rank + static_cast<unsigned int>(queued.index), queued.order};
    }

    /// Whether nobody is to be told of the task's new ranks.
    static bool isOnlyWalked(SubmittedTask const& task) {
        return task.settled.load(std::memory_order_relaxed) == nullptr;
    }

    /// Whether the strategy doubles ranks, as `doubleRank()` does.
    bool doublesRanks() const { return ranks == DOUBLED; }

    /// What the strategy that doubles does, without its calls, to a task that is only walked and no
    /// subclass, and has `rank`. Returns the new rank.
    static unsigned int doubleRank(SubmittedTask& task, unsigned int rank) {
        unsigned int const newRank =
            std::max(std::min(rank * 2u, LAST_DOUBLED), initialRankOf(task.priority));
        task.rank = newRank;
        return newRank;
    }

    /// The rank that tasks of a priority settle with, if a host sets no other.
    unsigned int finalRankOf(TaskPriority priority) const {
        return ranks == DOUBLED ? LAST_DOUBLED : initialRankOf(priority);
    }

    /// Lets the strategy update the rank.
    void update(QueuedTask const& queued) const {
        if (strategy != nullptr) {
            strategy->updateRank(queued.task.get());
        }
    }

    /// Whether the strategy will not change the task's rank any more. Of subclasses nobody can
    /// tell.
    bool isFinal(QueuedTask const& queued) const {
        return queued.isPlain && isFinal(queued.task->rank);
    }
    /// The same of a task that is no subclass.
    bool isFinal(unsigned int rank) const {
        return ranks == KEPT || (ranks == DOUBLED && rank == LAST_DOUBLED);
    }

private:
    enum Ranks { KEPT, DOUBLED, UNKNOWN };

    static Ranks ranksUnder(TaskRankingStrategy const* strategy) {
        if (strategy == nullptr || isExactly<HighestPriorityTaskRankingStrategy>(*strategy)) {
            return KEPT;
        }
        return isExactly<NoStarveTaskRankingStrategy>(*strategy) ? DOUBLED : UNKNOWN;
    }

    TaskRankingStrategy* strategy;
    Ranks ranks;
};

}  // namespace ovra::concurrent
