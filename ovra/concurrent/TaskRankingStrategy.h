#pragma once

#include <ovra/Export.h>

namespace ovra::concurrent {

class SubmittedTask;

/// Decides how the rank of a task changes while it waits in a `SubmittedTasksQueue`.
///
/// *Ownership*: shared by the queues that use it.
///
/// *Threads*: `updateRank` runs with the queue's lock held, on the thread that picks, usually a
/// worker. An `updateRank` that calls the queue or its executor deadlocks. One strategy shared by
/// several queues may be called by several threads at once; the two strategies below are stateless.
///
/// *Failure*: an exception out of `updateRank` leaves `SubmittedTasksQueue::getNextTask()`. On a
/// worker, that ends the process.
///
/// *Units*: ranks run from 1 to `SubmittedTask::HIGHEST_CURRENT_RANK_VALUE`; larger runs earlier.
class OVRA_API TaskRankingStrategy {
public:
    TaskRankingStrategy() = default;
    /// For subclasses that are copied; queues share a strategy.
    TaskRankingStrategy(TaskRankingStrategy const&) = default;
    /// For subclasses that are assigned.
    TaskRankingStrategy& operator=(TaskRankingStrategy const&) = default;
    virtual ~TaskRankingStrategy();

    /// Changes the rank of `task`, never null, in place.
    ///
    /// Called at every pick, once for each entry of the queue, newest first, right after that
    /// task's score was compared; the task that the pick removes is updated too. A task that is
    /// queued twice has two entries.
    virtual void updateRank(SubmittedTask* task) = 0;
};

/// Leaves every rank as it is. Only age then raises a waiting task, by 1 for each submission: a
/// `LOW` task runs before a `NORMAL` one submitted 1000 or more submissions later, and waits for
/// nearly a million `HIGH` ones.
class OVRA_API HighestPriorityTaskRankingStrategy : public TaskRankingStrategy {
public:
    HighestPriorityTaskRankingStrategy() = default;
    /// Has no state: a copy is the same strategy.
    HighestPriorityTaskRankingStrategy(HighestPriorityTaskRankingStrategy const&) = default;
    /// Has no state: changes nothing.
    HighestPriorityTaskRankingStrategy& operator=(HighestPriorityTaskRankingStrategy const&) =
        default;
    ~HighestPriorityTaskRankingStrategy() override;

    void updateRank(SubmittedTask* task) override;
};

/// Doubles the rank of every waiting task at each pick, up to the cap, so that nothing starves: a
/// `LOW` task reaches the cap after 31 picks, `NORMAL` after 22, `HIGH` after 12.
class OVRA_API NoStarveTaskRankingStrategy : public TaskRankingStrategy {
public:
    NoStarveTaskRankingStrategy() = default;
    /// Has no state: a copy is the same strategy.
    NoStarveTaskRankingStrategy(NoStarveTaskRankingStrategy const&) = default;
    /// Has no state: changes nothing.
    NoStarveTaskRankingStrategy& operator=(NoStarveTaskRankingStrategy const&) = default;
    ~NoStarveTaskRankingStrategy() override;

    void updateRank(SubmittedTask* task) override;
};

}  // namespace ovra::concurrent
