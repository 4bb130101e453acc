#pragma once

#include <atomic>
#include <set>
#include <typeinfo>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>

namespace ovra::concurrent {

class SettledTasks;
class TaskRankingStrategy;

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
    unsigned int score;
    std::uint64_t order;

    bool operator>(Urgency const& other) const {
        return score != other.score ? score > other.score : order > other.order;
    }
};

/// A task in `SettledTasks`, and where `SubmittedTask::setRank` tells of a new rank.
struct SettledPlace {
    SettledPlace(SubmittedTasksQueue::QueuedTask const& task, SettledTasks& container);

    /// With the task's mutex held.
    void noteNewRank() const;

    SubmittedTasksQueue::QueuedTask queued;
    Urgency urgency;
    SettledTasks* home;
    mutable bool hasNewRank = false;  // Guarded by the task's mutex.
    mutable SettledPlace const* nextChanged = nullptr;
};

/// The tasks of one queue whose ranks its strategy will not change any more, in the order in which
/// they are to run, so that a pick need not walk them.
///
/// Under the strategies of the library, tasks settle: at once where ranks are kept, at the highest
/// rank where they double. Under any other strategy, and for subclasses of `SubmittedTask`, nobody
/// can tell, and no task does.
///
/// Private to `SubmittedTasksQueue`, whose lock guards everything here but
/// `SettledPlace::noteNewRank()`.
class SettledTasks {
public:
    using QueuedTask = SubmittedTasksQueue::QueuedTask;

    struct MoreUrgent {
        bool operator()(SettledPlace const& left, SettledPlace const& right) const {
            return left.urgency > right.urgency;
        }
    };
    using Places = std::set<SettledPlace, MoreUrgent>;

    explicit SettledTasks(TaskRankingStrategy* queueStrategy);
    SettledTasks(SettledTasks const&) = delete;
    SettledTasks& operator=(SettledTasks const&) = delete;
    ~SettledTasks();

    static Urgency urgencyOf(QueuedTask const& queued) {
        return {rankOf(queued) + static_cast<unsigned int>(queued.task->getUniqueIndex()),
                queued.order};
    }

    /// Applies the queue's strategy to a task that has not settled, and says whether it is to now.
    bool updateRank(QueuedTask const& queued) const;

    /// Whether the strategy will not change the task's rank any more.
    bool isFinal(QueuedTask const& queued) const;

    /// Takes a task whose rank is final, and watches that rank from now on. False, and nothing
    /// done, if the task is settled already, here or in another queue, or for want of memory.
    bool add(QueuedTask const& queued);

    SettledPlace const* best() const { return places.empty() ? nullptr : &*places.begin(); }
    bool isEmpty() const { return places.empty(); }

    /// Takes the task out, if it is here.
    void remove(SubmittedTask& task);

    /// Takes all out, for the caller to destroy where no lock is held.
    Places takeAll();

    /// Finds the new place of every task whose rank was set since the last call: here, or in
    /// `unsettled` if the strategy will change it again.
    void rekeyChanged(std::vector<QueuedTask>& unsettled);

private:
    friend struct SettledPlace;

    enum Ranks { KEPT, DOUBLED, UNKNOWN };

    static Ranks ranksUnder(TaskRankingStrategy const* queueStrategy);
    static unsigned int rankOf(QueuedTask const& queued) {
        return queued.isPlain ? queued.task->rank.load() : queued.task->getRank();
    }

    void rekey(SettledPlace const& place, std::vector<QueuedTask>& unsettled);
    void pushChanged(SettledPlace const& place);
    void removeChanged(SettledPlace const& place);

    TaskRankingStrategy* const strategy;
    Ranks const ranks;
    Places places;
    std::atomic<SettledPlace const*> changed{nullptr};  // A stack, linked by `nextChanged`.
};

}  // namespace ovra::concurrent
