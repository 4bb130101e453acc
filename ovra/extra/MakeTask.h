#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/Task.h>

namespace ovra::extra {

/// A task that holds its function, of whatever class that is. `makeTask` makes it.
template <typename Function>
class FunctionTask final : public concurrent::Task {
public:
    /// `parts` are what the function is constructed from.
    template <typename... Parts>
    explicit FunctionTask(char const* borrowedName, Parts&&... parts)
        : function(std::forward<Parts>(parts)...), taskName(borrowedName) {}

    /// Calls the function.
    Result execute() override { return function(); }
    /// The pointer given, null included.
    char const* name() const override { return taskName; }

    Function function;  ///< What `execute()` calls.

private:
    char const* taskName;
};

/// Makes a task of a function, or of anything else that can be called with no arguments and whose
/// result converts to `Executable::Result`.
///
/// The function may be move-only. It is moved into the task, never copied, and destroyed with the
/// task. The task is one allocation. A task that is submitted again calls the same function again.
///
///     auto task = makeTask([file = std::move(file)]() mutable {
///         return file->sync() ? Executable::SUCCESS : Executable::FAILURE;
///     });
///
/// *Ownership*: `name` is borrowed for as long as the task exists, and may be null.
///
/// *Threads*: the function runs on the worker that runs the task. *Failure*: `std::bad_alloc`, and
/// what moving the function throws. An empty `std::function` is accepted, and ends in `FAILURE`.
template <typename Function>
std::shared_ptr<concurrent::Task> makeTask(Function function, char const* name = nullptr) {
    static_assert(std::is_invocable_r_v<concurrent::Executable::Result, Function&>,
                  "a task's function returns an Executable::Result");
    return std::make_shared<FunctionTask<Function>>(name, std::move(function));
}

}  // namespace ovra::extra
