#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/Task.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <tests/support/Gate.h>

namespace ovra::concurrent {

using Work = std::function<Executable::Result()>;
using Callback = std::function<void(std::shared_ptr<Task>)>;

inline Work succeed() {
    return [] { return Executable::SUCCESS; };
}

/// A result, or what an enumeration can hold beside its enumerators.
inline Executable::Result resultOf(int value) {
    return static_cast<Executable::Result>(value);
}

inline Work give(int result) {
    return [result] { return resultOf(result); };
}

/// A task class of the application's own.
class NamedTask : public Task {
public:
    explicit NamedTask(Work toRun = succeed(), char const* ownName = "named")
        : work(std::move(toRun)), text(ownName) {}

    Result execute() override { return work(); }
    char const* name() const override { return text; }

private:
    Work const work;
    char const* const text;
};

inline std::shared_ptr<SubmittedTask> submission(Work const& work = succeed(),
                                                 TaskPriority priority = NORMAL,
                                                 char const* name = "work") {
    return std::make_shared<SubmittedTask>(work, priority, Callback(), name);
}

/// A handle that is linked to `task` as a queue would link it.
inline std::shared_ptr<TaskHandle> linkHandle(std::shared_ptr<SubmittedTask> const& task) {
    auto handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
    task->setHandle(handle);
    return handle;
}

template <typename Strategy = HighestPriorityTaskRankingStrategy>
std::shared_ptr<SubmittedTasksQueue> makeQueue() {
    return std::make_shared<SubmittedTasksQueue>(std::make_shared<Strategy>());
}

/// Names typed tests after their strategy.
struct StrategyName {
    template <typename Strategy>
    static std::string GetName(int) {
        if (std::is_same_v<Strategy, HighestPriorityTaskRankingStrategy>) {
            return "HighestPriority";
        }
        return std::is_same_v<Strategy, NoStarveTaskRankingStrategy> ? "NoStarve" : "Other";
    }
};

/// Keeps one worker of an executor inside a task until it is released.
class Occupation {
public:
    explicit Occupation(TaskExecutor& executor) {
        handle = executor.submitTask(
            [state = state] {
                state->entered.open();
                state->released.wait();
                return Executable::SUCCESS;
            },
            HIGHEST, {}, "occupation");
        state->entered.wait();
    }
    Occupation(Occupation const&) = delete;
    Occupation& operator=(Occupation const&) = delete;
    ~Occupation() { release(); }

    void release() { state->released.open(); }

    std::shared_ptr<TaskHandle> handle;

private:
    struct State {
        test::Gate entered;
        test::Gate released;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

}  // namespace ovra::concurrent
