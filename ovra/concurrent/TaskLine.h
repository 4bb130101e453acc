#pragma once

#include <cstddef>
#include <vector>

#include <ovra/concurrent/RankRule.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>

namespace ovra::concurrent {

/// Tasks of one rank that came in the order in which they are to run, as nearly all do.
///
/// Private to the queue and `SettledTasks`; guarded by the queue's lock.
class TaskLine {
public:
    using QueuedTask = SubmittedTasksQueue::QueuedTask;

    explicit TaskLine(unsigned int rankOfAll) : rank(rankOfAll) {}

    bool isEmpty() const { return first == entries.size(); }
    bool hasRank(unsigned int asked) const { return rank == asked; }
    QueuedTask const& front() const { return entries[first]; }
    Urgency urgencyOf(QueuedTask const& queued) const { return RankRule::urgencyOf(queued, rank); }

    template <typename Visitor>
    void forEach(Visitor const& visit) const {
        for (QueuedTask const& queued : entries) {
            if (queued.task) {
                visit(queued);
            }
        }
    }

    /// Puts a task at the end. False, and nothing done, if it is to run before the last.
    bool append(QueuedTask& queued);

    /// The entry of `task`, which stands here.
    QueuedTask const& find(SubmittedTask const& task) const;

    /// Lets go of `task`, which stands here.
    void drop(SubmittedTask const& task);

    /// If there are no `entries`, gives back what a large burst has left behind.
    static void giveBackMemory(std::vector<QueuedTask>& entries);

private:
    void prefetch(std::size_t place) const;

    unsigned int rank;
    std::vector<QueuedTask> entries;  // Without a task: let go of, and not yet cleared away.
    std::size_t first = 0;            // The first entry with a task, or the end.
    std::size_t gone = 0;             // How many have none.
};

}  // namespace ovra::concurrent
