#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <ovra/concurrent/Task.h>
#include <ovra/extra/MonitoredExecutor.h>

namespace ovra::extra {

class WatchedTask;

/// What a `MonitoredExecutor` counts and lists. Shared by the executor and its tasks.
///
/// *Threads*: Thread-safe.
class TaskMonitor {
public:
    /// The executor has taken the task, which may have begun or ended meanwhile.
    void accepted(WatchedTask& task);
    void refused();
    void begin(WatchedTask& task);
    /// Counts the task as dropped or ended, unless it has ended before or was never accepted.
    void end(WatchedTask& task);

    TaskCounts read();
    /// See `MonitoredExecutor::writeTo`.
    std::string describe();

private:
    using Clock = std::chrono::steady_clock;

    // Tasks in the order in which they came.
    class Line {
    public:
        void append(WatchedTask& task);
        void remove(WatchedTask& task);
        WatchedTask* first() const { return head; }
        std::uint64_t count() const { return size; }
        Clock::duration ageOfFirst(Clock::time_point now) const;

    private:
        WatchedTask* head = nullptr;
        WatchedTask* tail = nullptr;
        std::uint64_t size = 0;
    };

    // Guards the rest and, until a task's destructor, its `stage`, `since` and links. The clock is
    // read with the mutex locked, so that both lines are in order of time.
    std::mutex mutex;
    TaskCounts counts{};
    Line waiting;
    Line running;
    Clock::duration longestWait{};
    Clock::duration longestRun{};
};

/// Takes the place of the submitted task, or makes one of a function.
///
/// *Threads*: as any task. What is public belongs to the monitor.
class WatchedTask final : public concurrent::Task {
public:
    enum class Stage { NEW, WAITING, RUNNING, ENDED };

    /// Of a task, or else of a function.
    WatchedTask(std::shared_ptr<TaskMonitor> const& owner,
                std::shared_ptr<concurrent::Task> const& submitted,
                std::function<Result()> const& submittedFunction,
                std::function<void(std::shared_ptr<concurrent::Task>)> const& original,
                char const* name);
    WatchedTask(WatchedTask const&) = delete;
    WatchedTask& operator=(WatchedTask const&) = delete;
    ~WatchedTask() override;

    Result execute() override;
    char const* name() const override;
    /// Calls the callback with the task that was submitted.
    void callBack(std::shared_ptr<concurrent::Task> const& given);

    char const* const shownName;
    bool hasRun = false;  // These two belong to the worker.
    bool hasFailed = false;
    Stage stage = Stage::NEW;
    std::chrono::steady_clock::time_point since;
    WatchedTask* previous = nullptr;
    WatchedTask* next = nullptr;

private:
    std::shared_ptr<TaskMonitor> const monitor;
    std::shared_ptr<concurrent::Task> const task;
    std::function<Result()> const function;
    std::function<void(std::shared_ptr<concurrent::Task>)> const callback;
};

}  // namespace ovra::extra
