#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <forward_list>
#include <memory>
#include <mutex>
#include <utility>

#include <ovra/Export.h>

namespace ovra::concurrent {

class RankedTasks;
class SubmissionMemory;
class SubmittedTask;
class TaskHandle;
class TaskRankingStrategy;

/// Holds the tasks that an executor has accepted and not yet handed to a worker, and chooses the
/// next.
///
/// The task with the largest score runs next, where score = rank + unique index in unsigned 32-bit
/// arithmetic. For example, a `LOW` task (rank 1) submitted 1000 submissions before a `NORMAL` one
/// (rank 1000) runs first. Unique indices count down: of equal ranks the oldest task runs first. A
/// task with a rank smaller by N runs first if it is more than N submissions older.
///
/// *Ownership*: shared by an executor and whoever made the queue; workers refer to it weakly. The
/// queue owns one reference to each queued task. One queue may serve several executors; the
/// executor destroyed first closes it.
///
/// *Threads*: Thread-safe. The lock is held while the strategy runs, while memory is allocated and
/// while a worker is woken. It is taken before a task's mutex. `addTask()`, `getNextTask()`,
/// `isEmpty()` and `close()` block for locks only, not for work.
///
/// *Failure*: refusals are empty pointers. An operation that cannot take a lock throws
/// `std::system_error`; the constructor and `addTask()` throw `std::bad_alloc`. A task that
/// `addTask()` fails to queue may have lost its link to an earlier handle.
///
/// *Limits*: as many tasks as memory holds.
class OVRA_API SubmittedTasksQueue {
public:
    /// A null `rankingStrategy` leaves the ranks as they are.
    explicit SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy);
    SubmittedTasksQueue(SubmittedTasksQueue const&) = delete;
    SubmittedTasksQueue& operator=(SubmittedTasksQueue const&) = delete;
    /// Closes the queue.
    virtual ~SubmittedTasksQueue();

    /// Queues `task`, wakes one worker and returns the handle to follow the task by; an empty
    /// pointer if the queue is closed or `task` is null. A task that is already cancelled is queued
    /// all the same. Add one object once: see `SubmittedTask`.
    ///
    /// A task added while another thread closes the queue may get a handle and yet never run.
    std::shared_ptr<TaskHandle> addTask(std::shared_ptr<SubmittedTask> task);

    /// Removes and returns the task with the largest score; an empty pointer at once if the queue
    /// is empty or closed. Applies the strategy to every queued task, each after its score was
    /// compared. Never waits for work.
    ///
    /// A task with a score of exactly 0 is never chosen, and keeps idle workers busy looking. In
    /// the first 2147483647 submissions only a task of a derived class with a rank of its own can
    /// have that score.
    std::shared_ptr<SubmittedTask> getNextTask();

    /// Closes the queue for good and drops every queued task: no state or result is set, no
    /// callback runs, no waiter is released. Wakes all workers. The dropped tasks are destroyed
    /// after the lock is released, so their destructors may call the executor. Needs no
    /// memory. A second call does nothing.
    void close();

    /// True if no task is queued, whatever the workers are doing.
    bool isEmpty();
    /// True from the first `close()` on. Takes no lock.
    bool isClosed() const;

    /// For an executor: as `addTask()`, for a task that the executor has made in `memory` and that
    /// no other thread can reach yet.
    OVRA_LOCAL std::shared_ptr<TaskHandle> add(std::shared_ptr<SubmittedTask> task,
                                               SubmissionMemory* memory);

private:
    friend class TaskExecutorWorker;  // Waits on `condition` with `mutex` held.

    OVRA_LOCAL bool hasTasks() const;

    // Guarded by `mutex`.
    std::uint64_t addedSoFar = 0;
    // What a pick scans, newest first, each task with the count of additions up to it.
    std::forward_list<std::pair<std::shared_ptr<SubmittedTask>, std::uint64_t>> tasks;
    RankedTasks* ranked;  // What a pick need not scan.

    std::mutex mutex;
    std::condition_variable condition;  // Something was queued, or the queue was closed.
    std::shared_ptr<TaskRankingStrategy> strategy;
    std::atomic<bool> closed{false};
};

}  // namespace ovra::concurrent
