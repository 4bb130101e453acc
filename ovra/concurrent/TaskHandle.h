#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <variant>

#include <ovra/Export.h>
#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

class SubmissionMemory;
class SubmittedTask;

/// How a `TaskHandle` reaches its `SubmittedTask`: five functions over a weak reference.
///
/// Made by `SubmittedTask::provideProxy`. Any member may be empty. The handle then does as if the
/// task no longer existed.
struct SubmittedTaskProxy {
    std::function<Executable::State()> getState;       ///< `DONE` without a task.
    std::function<Executable::Result()> getResult;     ///< `SUCCESS` without a task.
    std::function<void(TaskPriority)> updatePriority;  ///< Nothing without a task.
    std::function<void()> cancel;                      ///< Nothing without a task.
    std::function<void()> waitForCompletion;           ///< At once without a task.
};

/// What a caller holds to follow a submitted task: to wait for it, cancel it, change its priority
/// and read its state, result and exception.
///
/// *Ownership*: held through `std::shared_ptr`. The handle never keeps the task alive, nor the task
/// the handle; either may be destroyed first. A handle that outlives its task keeps the state,
/// result and exception that the task pushed last. It also keeps the memory of the submission, some
/// 380 bytes, although everything else in that memory is destroyed.
///
/// *Threads*: all operations but `getException()` may be called from any thread at any time. No
/// lock is held while `waitForCompletion()` blocks.
///
/// *Failure*: see `waitForCompletion()`. `cancel()` and `updatePriority()` throw
/// `std::system_error` if they cannot take a lock. A null proxy counts as one whose members are
/// empty.
class OVRA_API TaskHandle {
    struct Private {
        explicit Private() = default;
    };
    using WeakTask = std::weak_ptr<SubmittedTask>;
    using Proxy = std::shared_ptr<SubmittedTaskProxy>;

public:
    /// Reaches the task through `taskProxy`, which is asked for state and result once, here.
    explicit TaskHandle(std::shared_ptr<SubmittedTaskProxy> const& taskProxy);
    TaskHandle(TaskHandle const&) = delete;
    TaskHandle& operator=(TaskHandle const&) = delete;
    virtual ~TaskHandle();

    /// Marks the task `CANCELLED`, whatever its state, `DONE` included. Waits for nothing but the
    /// task's lock, which nobody holds for long.
    ///
    /// A queued task then neither runs nor calls its callback: when a worker reaches the task, its
    /// result becomes `ABORTED` and its waiter is released. Running work is never interrupted: its
    /// result becomes `ABORTED`, unless it still returns `SUCCESS` or `FAILURE`, or throws. The
    /// result of such work is kept. A cancel that arrives just as a worker starts the task may be
    /// overwritten by `EXECUTING`: the task then runs as if it had not been cancelled. A cancel
    /// that arrives just as the work ends may be overwritten by `DONE`. In both cases `isDone()`
    /// follows the new state.
    void cancel();

    /// Gives a queued task a new priority and resets its rank to that priority's initial rank, even
    /// if it had aged above it. Has no effect on a task that has started.
    void updatePriority(TaskPriority priority);

    /// Blocks until the task has ended, whatever its outcome; returns at once if the task no longer
    /// exists. Afterwards the result, the exception and the work's own effects can be read.
    ///
    /// When this returns, the completion callback may still be running, or not have started: what
    /// the callback uses, and the borrowed task name, must stay valid beyond the wait.
    ///
    /// Allocates nothing. Wait once: while the task exists, a second wait, from any thread, is
    /// logged at `ERROR` and throws `std::future_error`. A wait never ends
    /// - for a queued task of an executor that is destroyed, or whose queue is closed: the waiter
    ///   keeps the task, but no worker will ever reach it. Keep the executor alive while you wait.
    ///   `isDone()` does not wait, and stays false for such a task;
    /// - inside work, for the task itself; inside work or a callback, for another task of the same
    ///   one-thread executor.
    void waitForCompletion();

    /// The state last pushed by the task; it may be one step behind. Does not block.
    Executable::State getState() const;
    /// The result last pushed by the task. Set just before `DONE`, but after `CANCELLED`: a
    /// cancelled task has no result until a worker has reached it. Does not block.
    Executable::Result getResult() const;
    /// True for `DONE` and `CANCELLED`. So it is true after `cancel()` even while the work is still
    /// running. `isDone()` reads the state twice: it can return false once, if `DONE` overwrites
    /// `CANCELLED` between the two reads.
    bool isDone() const;

    /// The exception that the work threw, or null if it threw none. A `std::exception` is the very
    /// object that the work threw. A `std::runtime_error` "Unknown exception" stands for anything
    /// else, or a `std::bad_alloc` if memory is short.
    ///
    /// Read it after `waitForCompletion()` has returned or `getState()` has returned `DONE`: until
    /// then the worker may be writing it.
    std::exception_ptr getException() const;

    /// For the queue: a new handle, linked to a task. `memory` is the memory in which an executor
    /// made a task that no other thread can reach yet, or null.
    OVRA_LOCAL static std::shared_ptr<TaskHandle> of(
        std::shared_ptr<SubmittedTask> const& submitted, SubmissionMemory* memory);
    /// For `of()`: nobody else can name the type of the first argument.
    OVRA_LOCAL TaskHandle(Private, std::shared_ptr<SubmittedTask> const& submitted);

    /// For the task, which pushes every change here.
    void setState(Executable::State newState);
    /// For the task, as `setState()`.
    void setResult(Executable::Result newResult);
    /// For the task, before the state that ends it.
    void setException(std::exception_ptr const& newException);

private:
    std::variant<WeakTask, Proxy> const link;
    std::atomic<Executable::State> state;
    std::atomic<Executable::Result> result;
    std::exception_ptr exception;  // Written by the worker before the state that ends the task.
};

}  // namespace ovra::concurrent
