#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

#include <ovra/Export.h>
#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/Task.h>
#include <ovra/concurrent/TaskPriority.h>
#include <ovra/concurrent/internal/RankedEntry.h>
#include <ovra/concurrent/internal/TaskEnd.h>

namespace ovra::concurrent {

class TaskHandle;
class SubmissionMemory;
struct SubmittedTaskProxy;

/// The executor's own record of one submission: the work, its callback, its rank, its state and
/// result, and the promise that notifies waiters of its end.
///
/// An application usually needs only `TaskHandle`. It may also construct a `SubmittedTask`, or
/// derive from this class to see every change of state and result.
///
/// *Ownership*: held through `std::shared_ptr` by the queue, then by the worker that runs it, and
/// by a waiting caller. The task refers to its handle weakly. Queue each object only once: an
/// object that is queued twice has two entries. If both entries are queued when the object is
/// picked, the pick removes both. If the second entry is added after the pick, the object runs
/// twice, which ends the process: the promise cannot be fulfilled again.
///
/// *Threads*: the queries, `setRank`, `setPriority`, `setState` and `setResult` may be called from
/// any thread. `execute()` and then `performCallback()` are called on one worker thread, with no
/// lock held. The task's mutex is held while a change is pushed to the handle. A thread that takes
/// both locks takes the queue's lock before the task's mutex. `getRank()` and `getPriority()` are
/// called with the queue's lock held: an override must not call the queue or its executor.
///
/// As long as a queue computes the rank, `getRank()`, `setRank()` and `setPriority()` take a lock
/// of that queue. That lock is a leaf: the three calls never wait for the queue's own lock, so a
/// strategy or an override may make them during a pick. The library may allocate memory while it
/// holds the leaf lock, so an application's `operator new` must not make these calls.
///
/// *Failure*: exceptions of work and callback are caught and logged at `WARNING`. On a worker, an
/// exception out of an overridden virtual operation ends the process. If `getNextTask()` throws
/// on a thread of the application, no task is removed. Tasks newer than the task that threw keep
/// their updated ranks. An operation that cannot take a lock throws `std::system_error`.
///
/// *Units*: a rank is an unsigned number from the initial rank of the current priority to
/// `HIGHEST_CURRENT_RANK_VALUE`; larger runs earlier. Unique indices count down through the life of
/// the process from 2147483646, and wrap after -2147483648.
class OVRA_API SubmittedTask {
public:
    /// Makes a `Task` of a function and a borrowed name.
    class OVRA_API LambdaFunctionTask : public Task {
    public:
        /// Copies `work`, and keeps the pointer `name`, which may be null. The caller keeps the
        /// text valid for the life of the task.
        LambdaFunctionTask(std::function<Result()> const& work, char const* name);
        LambdaFunctionTask(LambdaFunctionTask const&) = delete;
        LambdaFunctionTask& operator=(LambdaFunctionTask const&) = delete;
        ~LambdaFunctionTask() override;

        /// Calls the function; throws `std::bad_function_call` when it is empty.
        Result execute() override;
        /// The pointer given, null included: there is no "Unnamed" here.
        char const* name() const override;

    private:
        std::function<Result()> function;
        char const* taskName;
    };

    /// The largest rank a task can have: the initial rank of `HIGHEST`.
    static constexpr unsigned int HIGHEST_CURRENT_RANK_VALUE = 0x7fffffff;

    /// A null `work` is accepted, and logged at `WARNING` as "Given a null pointer for a task.".
    /// The task occupies its worker until the task is cancelled. `onCompletion` may be empty.
    SubmittedTask(std::shared_ptr<Task> work, TaskPriority initialPriority,
                  std::function<void(std::shared_ptr<Task>)> onCompletion);
    /// Copies `work` into a `LambdaFunctionTask`; `name` is borrowed and may be null.
    SubmittedTask(std::function<Executable::Result()> const& work, TaskPriority initialPriority,
                  std::function<void(std::shared_ptr<Task>)> onCompletion, char const* name);
    SubmittedTask(SubmittedTask const&) = delete;
    SubmittedTask& operator=(SubmittedTask const&) = delete;
    /// A promise that was never fulfilled is broken: a holder of the future sees
    /// `std::future_error`.
    virtual ~SubmittedTask();

    /// The current rank; it changes while the task waits.
    virtual unsigned int getRank() const;
    /// The priority given last.
    virtual TaskPriority getPriority() const;

    /// Stores the state and pushes it to the handle if that still exists. No transition is refused,
    /// `DONE` to `CANCELLED` included.
    virtual void setState(Executable::State newState);
    /// Stores the result and pushes it to the handle if that still exists.
    virtual void setResult(Executable::Result newResult);

    /// Clamps to the range from the initial rank of the current priority to
    /// `HIGHEST_CURRENT_RANK_VALUE`.
    ///
    ///     on a NORMAL task: 0 -> 1000   5000 -> 5000   3000000000 -> 2147483647
    void setRank(unsigned int const& newRank);
    /// Stores the priority and resets the rank to the initial rank of that priority, even if the
    /// task had aged above it. The queue sees the new rank at its next pick.
    void setPriority(TaskPriority newPriority);
    /// `setState`, then logs the new state at `INFO`.
    void updateTaskState(Executable::State newState);
    /// Links the handle, weakly, and pushes the current state and result to it.
    void setHandle(std::shared_ptr<TaskHandle> const& newHandle);

    /// The state stored last; `UNSCHEDULED` at first.
    Executable::State getState() const;
    /// The result stored last; `NO_RESULT` at first.
    Executable::Result getResult() const;
    /// The number given at construction: one less than that of the task made before, modulo 2^32.
    std::int32_t getUniqueIndex() const;
    /// Whether the state is `CANCELLED`.
    bool isCancelled() const;
    /// True for `SUCCESS` and `FAILURE` only.
    bool isFinishedResult(Executable::Result candidate) const;
    /// "Null Task" without a task, otherwise the task's own name, which may be null.
    char const* taskName() const;
    /// The handle linked last; empty before the task is queued.
    std::weak_ptr<TaskHandle> getHandle() const;

    /// Runs the work, and runs it again while it returns `REPEAT` and the task is not cancelled.
    /// Then decides state and result, fulfils the promise and returns the result.
    ///
    ///     work ends, not cancelled           -> DONE, result as returned, FAILURE if it threw
    ///     cancelled, result not finished     -> CANCELLED, ABORTED
    ///     cancelled, but SUCCESS or FAILURE  -> CANCELLED, that result
    ///
    /// Starts with the state `EXECUTING`, which overwrites `CANCELLED`. Work that returns `REPEAT`
    /// without end, and a null task, occupy the worker until they are cancelled, and so block the
    /// executor's destructor. Not reentrant.
    Executable::Result execute();
    /// Calls the callback, if there is one, with the task, which may be null. What the callback
    /// throws is logged and changes nothing. Runs after the promise has been fulfilled.
    void performCallback();
    /// Releases the waiter. A second call is logged at `ERROR` and throws `std::future_error`.
    void setPromiseValue();
    /// The future that becomes ready, always with `true`, when the task has ended. A second call,
    /// or one after a wait, is logged at `ERROR` and throws `std::future_error`. `std::bad_alloc`
    /// if memory is short.
    std::future<bool> getFuture();
    /// Logs `e` and, if `forwardToHandle` is set, passes it to the handle. A null `e` stands for a
    /// `std::runtime_error` "Unknown exception", or for `std::bad_alloc` if memory is short. An `e`
    /// that is no `std::exception` is thrown to the caller.
    void handleAndLogUnknownException(std::exception_ptr e, bool forwardToHandle);

    /// The proxy through which a handle reaches `task`; it holds only weak references.
    static std::shared_ptr<SubmittedTaskProxy> provideProxy(
        std::weak_ptr<SubmittedTask> const& task);

    /// For the executor: a task in a piece of memory that also holds its work.
    OVRA_LOCAL SubmittedTask(SubmissionMemory* memory,
                             std::function<Executable::Result()> const& work,
                             TaskPriority initialPriority,
                             std::function<void(std::shared_ptr<Task>)> onCompletion,
                             char const* name);
    /// For the executor: as `setHandle()`, for the first handle of a task that no other thread can
    /// reach yet.
    OVRA_LOCAL void setFirstHandle(std::shared_ptr<TaskHandle> const& firstHandle);
    /// For the queue that holds the task.
    RankedEntry& rankedEntry() { return rank; }
    /// For the worker that runs the task: `isCancelled()` without the lock.
    bool isCancelledNow() const { return state == Executable::CANCELLED; }
    /// For the handle: waits as `getFuture().get()` does, without allocating.
    OVRA_LOCAL void waitForEnd();

private:
    OVRA_LOCAL void changeRank(unsigned int newRank, TaskPriority const* newPriority);
    OVRA_LOCAL void logState(Executable::State newState) const;
    OVRA_LOCAL void finish(Executable::Result outcome);

    std::shared_ptr<Task> task;
    std::weak_ptr<TaskHandle> handle;  // Set under `mutex`, once another thread can see the task.
    std::function<void(std::shared_ptr<Task>)> callback;
    mutable std::mutex mutex;
    TaskEnd end;
    RankedEntry rank;  // And the priority.

    // Guarded by `mutex`, so that no query returns a value that the handle does not have yet.
    // Atomic because the worker also reads both without the lock, in execute() and
    // isCancelledNow().
    std::atomic<Executable::State> state{Executable::UNSCHEDULED};
    std::atomic<Executable::Result> result{Executable::NO_RESULT};
};

}  // namespace ovra::concurrent
