#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <set>
#include <typeinfo>
#include <vector>

#include <ovra/concurrent/InitialRank.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskLine.h>
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

/// The tasks of one queue whose ranks its strategy will not change any more, in the order in which
/// they are to run, so that a pick need not walk them.
///
/// Under the strategies of the library, tasks settle: at once where ranks are kept, at the highest
/// rank where they double. Under any other strategy, and for subclasses of `SubmittedTask`, nobody
/// can tell, and no task does.
///
/// Tasks with the rank that a priority starts with stand in line, one line for each. What came out
/// of order, or has a rank that a host has given it, waits in a tree.
///
/// Private to `SubmittedTasksQueue`, whose lock guards everything here but `noteNewRank()`.
class SettledTasks {
public:
    using QueuedTask = SubmittedTasksQueue::QueuedTask;

    struct Stray {
        QueuedTask queued;
        Urgency urgency;
    };
    struct MoreUrgent {
        using is_transparent = void;
        bool operator()(Stray const& left, Stray const& right) const {
            return left.urgency > right.urgency;
        }
        bool operator()(Stray const& left, unsigned int score) const {
            return left.urgency.score > score;
        }
    };
    using Strays = std::set<Stray, MoreUrgent>;
    struct Places {
        std::array<TaskLine, 4> lines{
            TaskLine(initialRankOf(HIGHEST)), TaskLine(initialRankOf(HIGH)),
            TaskLine(initialRankOf(NORMAL)), TaskLine(initialRankOf(LOW))};
        Strays strays;
    };

    struct Candidate {
        QueuedTask const* queued = nullptr;
        Urgency urgency;
    };

    explicit SettledTasks(TaskRankingStrategy* queueStrategy);
    SettledTasks(SettledTasks const&) = delete;
    SettledTasks& operator=(SettledTasks const&) = delete;
    ~SettledTasks();

    static Urgency urgencyOf(QueuedTask const& queued) {
        return {rankOf(queued) + static_cast<unsigned int>(queued.index), queued.order};
    }

    static void prefetchRank(QueuedTask const& queued) {
        if (queued.task) {
            __builtin_prefetch(&queued.task->rank, 1);
        }
    }

    /// Applies the queue's strategy to a task that has not settled, and says whether it is to now.
    bool updateRank(QueuedTask const& queued) const {
        if (ranks == DOUBLED && queued.isPlain && queued.task->settled == nullptr) {
            doubleRank(*queued.task);
        } else if (strategy != nullptr) {
            strategy->updateRank(queued.task.get());
        }
        return isFinal(queued);
    }

    /// Whether the strategy will not change the task's rank any more.
    bool isFinal(QueuedTask const& queued) const {
        return queued.isPlain && isFinal(queued.task->rank);
    }

    /// Takes a task whose rank is final, and watches that rank from now on. False, and nothing
    /// done, if the task is settled already, here or in another queue, or for want of memory.
    bool add(QueuedTask& queued);

    /// The task to run first, if there is one.
    Candidate best() const;
    bool isEmpty() const;

    /// Takes the task out, if it is here.
    void remove(SubmittedTask& task);

    /// Takes all out, for the caller to destroy where no lock is held. Needs no memory.
    Places takeAll();

    /// Finds the new place of every task whose rank was set since the last call: here, or in
    /// `unsettled` if the strategy will change it again.
    void rekeyChanged(std::vector<QueuedTask>& unsettled);

    /// Tells of a new rank of a task that is here. With the task's mutex held.
    void noteNewRank(SubmittedTask& task);

private:
    enum Ranks { KEPT, DOUBLED, UNKNOWN };

    static Ranks ranksUnder(TaskRankingStrategy const* queueStrategy);
    static unsigned int rankOf(QueuedTask const& queued) {
        return queued.isPlain ? queued.task->rank.load() : queued.task->getRank();
    }
    // What the strategy that doubles does to a plain task, without its calls.
    static void doubleRank(SubmittedTask& task) {
        unsigned int const doubled = task.rank.load(std::memory_order_relaxed) * 2u;
        task.rank.store(std::max(std::min(doubled, SubmittedTask::HIGHEST_CURRENT_RANK_VALUE),
                                 initialRankOf(task.priority)),
                        std::memory_order_relaxed);
    }

    bool isFinal(unsigned int rank) const {
        return ranks == KEPT ||
               (ranks == DOUBLED && rank == SubmittedTask::HIGHEST_CURRENT_RANK_VALUE);
    }
    template <typename Visitor>
    void forEach(Visitor const& visit) const {
        for (TaskLine const& line : places.lines) {
            line.forEach(visit);
        }
        for (Stray const& stray : places.strays) {
            visit(stray.queued);
        }
    }
    TaskLine* lineWith(unsigned int rank);
    Strays::const_iterator strayOf(SubmittedTask const& task, unsigned int rank) const;
    QueuedTask const& entryOf(SubmittedTask const& task, unsigned int rank);
    void enter(QueuedTask& queued, unsigned int rank);
    void leave(SubmittedTask const& task, unsigned int rank);
    void rekey(SubmittedTask& task, std::vector<QueuedTask>& unsettled);
    void pushChanged(SubmittedTask& task);
    void removeChanged(SubmittedTask const& task);

    TaskRankingStrategy* const strategy;
    Ranks const ranks;
    Places places;
    bool isOutOfOrder = false;  // For want of memory: compare all by the ranks they have now.
    std::atomic<SubmittedTask*> changed{nullptr};  // A stack, linked by `nextChanged`.
};

}  // namespace ovra::concurrent
