#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <set>
#include <vector>

#include <ovra/concurrent/RankRule.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskLine.h>

namespace ovra::concurrent {

/// The tasks of one queue whose ranks its strategy will not change any more, in the order in which
/// they are to run, so that a pick need not walk them.
///
/// Under the strategies of the library, tasks settle: at once where ranks are kept, at the highest
/// rank where they double. Under a host's strategy, and for subclasses of `SubmittedTask`, nobody
/// can tell, and no task does.
///
/// Tasks stand in lines, those of one priority mostly in one, as they settle in the order in which
/// they are to run. What comes out of order in every line of its rank, or has a rank that no line
/// has, waits in a tree.
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
        explicit Places(RankRule const& rule)
            : lines{TaskLine(rule.finalRankOf(HIGHEST)), TaskLine(rule.finalRankOf(HIGH)),
                    TaskLine(rule.finalRankOf(NORMAL)), TaskLine(rule.finalRankOf(LOW))} {}

        std::array<TaskLine, 4> lines;
        Strays strays;
    };

    struct Candidate {
        QueuedTask const* queued = nullptr;
        Urgency urgency;
    };

    explicit SettledTasks(RankRule queueRule) : rule(queueRule), places(queueRule) {}
    SettledTasks(SettledTasks const&) = delete;
    SettledTasks& operator=(SettledTasks const&) = delete;
    ~SettledTasks();

    /// Takes a task whose rank is final, and watches that rank from now on. False, and nothing
    /// done, if the task is settled already, here or in another queue, for want of memory, or if
    /// the task cannot be locked.
    bool add(QueuedTask& queued);

    /// The task to run first, if there is one. While some are here only for want of memory, walks
    /// all of them, as the queue walks its own, and lets the strategy update their ranks.
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

    RankRule const rule;

private:
    template <typename Visitor>
    void forEach(Visitor const& visit) const {
        for (TaskLine const& line : places.lines) {
            line.forEach(visit);
        }
        for (Stray const& stray : places.strays) {
            visit(stray.queued);
        }
    }
    Strays::const_iterator strayOf(SubmittedTask const& task, unsigned int rank) const;
    QueuedTask const& entryOf(SubmittedTask const& task) const;
    void enter(QueuedTask& queued, unsigned int rank);
    void leave(SubmittedTask const& task, std::size_t place, unsigned int rank);
    void rekey(SubmittedTask& task, std::vector<QueuedTask>& unsettled);
    void pushChanged(SubmittedTask& task);
    void removeChanged(SubmittedTask const& task);

    Places places;
    bool isOutOfOrder = false;  // For want of memory: compare all by the ranks they have now.
    std::atomic<SubmittedTask*> changed{nullptr};  // A stack, linked by `nextChanged`.
};

}  // namespace ovra::concurrent
