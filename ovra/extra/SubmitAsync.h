#pragma once

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskPriority.h>
#include <ovra/extra/MakeTask.h>

namespace ovra::extra {

/// Work that can be given up before it has started.
class AbandonableWork {
public:
    /// Destroys the function and breaks the promise, unless the work has started.
    virtual void abandon() = 0;

protected:
    AbandonableWork() = default;
    AbandonableWork(AbandonableWork const&) = delete;
    AbandonableWork& operator=(AbandonableWork const&) = delete;
    ~AbandonableWork() = default;
};

/// A request to stop, for work that asks from time to time whether there is one.
///
/// *Ownership*: copies share one flag, which lives as long as any of them.
///
/// *Threads*: Thread-safe. What a thread did before `raise()` is visible to a thread that has seen
/// the flag raised.
///
/// *Failure*: the constructor may throw `std::bad_alloc`; nothing else fails.
class StopFlag {
public:
    StopFlag() : shared(std::make_shared<Shared>()) {}
    /// A move copies too: a flag that was moved from would be empty.
    StopFlag(StopFlag const&) = default;
    /// From now on shares the other's flag.
    StopFlag& operator=(StopFlag const&) = default;
    ~StopFlag() = default;

    /// For good: a flag is never lowered.
    void raise() { shared->isRaised.store(true, std::memory_order_release); }
    /// Whether the flag, or a copy of it, has been raised.
    bool isRaised() const { return shared->isRaised.load(std::memory_order_acquire); }

    /// For `submitAsync`: the work that this flag is made for.
    void setWork(std::weak_ptr<AbandonableWork> work) { shared->work = std::move(work); }
    /// For `Async`: gives up that work, if it has not started.
    void abandonWork() const {
        if (auto const work = shared->work.lock()) {
            work->abandon();
        }
    }

private:
    struct Shared {
        std::atomic<bool> isRaised{false};
        std::weak_ptr<AbandonableWork> work;  // Set once, before the work is submitted.
    };
    std::shared_ptr<Shared> shared;
};

/// What `submitAsync` returns: the means to follow, await and stop the work.
///
/// Destroying it waits for nothing, raises nothing and cancels nothing.
///
/// *Threads*: the members are as safe as their classes. `cancel()` may be called from any thread,
/// while no other thread moves or assigns the object.
template <typename Value>
struct Async {
    /// Empty if the executor refused the work.
    std::shared_ptr<concurrent::TaskHandle> handle;
    /// Becomes ready when the work has ended, or never will run.
    std::future<Value> future;
    /// What the function is given, if it takes a flag.
    StopFlag stop;

    /// Raises the flag, and then cancels the handle. A function that has not started never runs: it
    /// is destroyed on this thread, and the future throws `std::future_error` from now on, whatever
    /// the workers do. A function that has started runs to its end, and the future has its value or
    /// exception. Does not block.
    void cancel() {
        stop.raise();
        if (handle) {
            handle->cancel();
        }
        stop.abandonWork();
    }
};

/// What `submitAsync` makes a task of: a function, and the promise of its value.
template <typename Function, typename Value>
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): never deleted through its base.
class AsyncWork final : public AbandonableWork {
public:
    /// Takes the function over.
    AsyncWork(Function&& givenFunction, StopFlag const& givenFlag)
        : flag(givenFlag), function(std::move(givenFunction)) {}

    /// The future of the function's value. Once, before the task is submitted.
    std::future<Value> getFuture() { return promise->get_future(); }

    void abandon() override {
        if (!isTaken.exchange(true)) {
            function.reset();
            promise.reset();
        }
    }

    /// Runs the function, once.
    concurrent::Executable::Result operator()() {
        if (isTaken.exchange(true)) {
            return concurrent::Executable::ABORTED;
        }
#if defined(__cpp_exceptions)
        try {
            fulfil();
        } catch (...) {
            function.reset();
            if (auto const thrown = std::current_exception()) {
                promise->set_exception(thrown);
            } else {
                promise.reset();  // The thread is being cancelled, or exits.
            }
            throw;
        }
#else
        fulfil();
#endif
        return concurrent::Executable::SUCCESS;
    }

private:
    decltype(auto) call() {
        if constexpr (std::is_invocable_v<Function&, StopFlag const&>) {
            return (*function)(std::as_const(flag));
        } else {
            return (*function)();
        }
    }
    void fulfil() {
        if constexpr (std::is_void_v<Value>) {
            call();
            function.reset();
            promise->set_value();
        } else {
            Value value = call();
            function.reset();
            promise->set_value(std::forward<Value>(value));
        }
    }

    StopFlag const flag;
    std::atomic<bool> isTaken{false};  // By the worker that runs the function, or by `abandon()`.
    // Both belong to whoever has taken the work. The function is always destroyed before the
    // promise.
    std::optional<std::promise<Value>> promise{std::in_place};
    std::optional<Function> function;
};

/// The result of `Function`, with a flag if it takes one.
template <typename Function, bool TAKES_FLAG = std::is_invocable_v<Function&, StopFlag const&>>
struct AsyncResult : std::invoke_result<Function&, StopFlag const&> {};
template <typename Function>
struct AsyncResult<Function, false> : std::invoke_result<Function&> {};

/// The type of the future's value: an lvalue reference as it is, anything else as a value.
template <typename Function, typename Result = typename AsyncResult<Function>::type>
using AsyncValue =
    std::conditional_t<std::is_lvalue_reference_v<Result>, Result, std::decay_t<Result>>;

/// Submits `function()` or `function(StopFlag const&)` to `executor`, and returns a future of its
/// value.
///
/// If both forms can be called, the one with the flag is. The function may be move-only, and is
/// moved, never copied. It may return void, a reference, or a value that is moved into the future;
/// `T&&` is stored as `T`.
///
///     the function returns       -> the future has the value; the task's result is SUCCESS
///     it returns any `Result`    -> a value like any other: REPEAT does not repeat
///     it throws                  -> the future has that exception; the result is FAILURE, and the
///                                   handle and the log have the exception as for any task
///     it never runs: cancelled while queued, executor destroyed, queue closed, refused
///                                -> the future throws `std::future_error`, broken promise
///     it ends its own thread     -> the same
///
/// The future becomes ready once the function has ended or the task is destroyed. A task that is
/// submitted while another thread closes the queue may stay there until the queue is destroyed.
/// `Async`'s own `cancel()` breaks the promise at once; a `cancel()` of its handle does so when a
/// worker reaches the task.
///
/// *Ownership*: the function and what it captured are destroyed before the future becomes ready.
/// The caller's own function object stays the caller's, even after a move. `name` is borrowed as in
/// `TaskExecutor::submitTask`, and may be null.
///
/// *Threads*: Thread-safe. Waiting for the future inside a task of the same one-thread executor
/// never ends.
///
/// *Failure*: as `TaskExecutor::submitTask`; nothing is queued if it throws.
///
///     auto sum = submitAsync(*executor, [data](StopFlag const& stop) {
///         return sumOf(data, stop);
///     });
///     if (sum.future.wait_for(10s) != std::future_status::ready) {
///         sum.cancel();
///     }
template <typename Function>
auto submitAsync(concurrent::TaskExecutor& executor, Function function,
                 concurrent::TaskPriority priority = concurrent::NORMAL,
                 char const* name = nullptr) {
    using Value = AsyncValue<Function>;
    using Work = AsyncWork<Function, Value>;
    StopFlag stop;
    auto const task = std::make_shared<FunctionTask<Work>>(name, std::move(function), stop);
    stop.setWork(std::shared_ptr<AbandonableWork>(task, &task->function));
    auto future = task->function.getFuture();
    auto handle = executor.submitTask(task, priority, {});
    return Async<Value>{std::move(handle), std::move(future), std::move(stop)};
}

}  // namespace ovra::extra
