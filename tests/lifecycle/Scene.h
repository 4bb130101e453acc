#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <ovra/ovra.h>
#include <tests/support/Gate.h>

namespace ovra::test {

/// Prints a line at once, whole, and without what a process loses when it ends early.
inline void say(std::string const& line) {
    std::string const whole = line + "\n";
    [[maybe_unused]] auto const written = write(STDOUT_FILENO, whole.data(), whole.size());
}

template <typename Condition>
void yieldUntilTrue(Condition condition) {
    while (!condition()) {
        std::this_thread::yield();
    }
}

/// True once every thread but the caller's is asleep in the kernel.
inline bool othersAreAsleep() {
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        if (entry.path().filename() == std::to_string(gettid())) {
            continue;
        }
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        std::getline(stat, line);
        auto const afterName = line.rfind(") ");
        if (afterName == std::string::npos || line[afterName + 2] != 'S') {
            return false;
        }
    }
    return true;
}

/// An executor with one worker in the middle of something, by the name of the situation:
///
///     idle           one task has run, the worker sleeps
///     queued         a task waits behind one that runs
///     running        a task runs
///     callback       a task has ended, its callback runs
///     waited         a task runs, a thread waits for it
///     waited-queued  a task waits behind one that runs, and a thread waits for it
///
/// What runs goes on until the executor is being destroyed, or `goOn()` is called.
class Scene {
public:
    Scene(std::string situation, std::weak_ptr<concurrent::TaskExecutor> const& onExecutor)
        : name(std::move(situation)), executor(onExecutor) {
        auto const live = executor.lock();
        if (name == "idle") {
            Gate called;
            handle = live->submitTask(
                [] { return concurrent::Executable::SUCCESS; }, concurrent::NORMAL,
                [&](std::shared_ptr<concurrent::Task> const&) { called.open(); }, "idle");
            called.wait();
            yieldUntilTrue([] { return othersAreAsleep(); });
        } else if (name == "callback") {
            handle = submit(
                *live, [] { return concurrent::Executable::SUCCESS; },
                [this] {
                    busy.open();
                    waitForTheEnd();
                    say("callback ended");
                });
            busy.wait();
        } else {
            handle = submit(
                *live,
                [this] {
                    busy.open();
                    waitForTheEnd();
                    say("work ended");
                    return concurrent::Executable::SUCCESS;
                },
                [this] {
                    if (name == "waited") {
                        waiterIsOut.wait();
                    }
                    say("called back");
                });
            busy.wait();
        }
        if (name == "queued" || name == "waited-queued") {
            auto const watch = atEnd([this] {
                say("queued work dropped");
                queuedIsDropped.open();
            });
            handle = submit(
                *live,
                [watch] {
                    say("queued work ran");
                    return concurrent::Executable::SUCCESS;
                },
                [] { say("queued work called back"); });
        }
        if (name == "waited" || name == "waited-queued") {
            waiter = std::thread([this, waitedFor = handle]() mutable {
                waitedFor->waitForCompletion();
                waitedFor.reset();
                say("waiter released");
                waiterIsOut.open();
            });
            // The waiter's reference to the task, beside that of the queue or the worker.
            yieldUntilTrue([this] { return submitted.use_count() >= 2; });
        }
    }
    Scene(Scene const&) = delete;
    Scene& operator=(Scene const&) = delete;
    /// A waiter that will never be released is left behind.
    ~Scene() {
        if (waiter.joinable()) {
            if (name == "waited-queued") {
                waiter.detach();
            } else {
                waiter.join();
            }
        }
    }

    void goOn() { toldToGoOn.open(); }
    /// For a scene that nobody will destroy.
    void leaveWaiter() {
        if (waiter.joinable()) {
            waiter.detach();
        }
    }

    /// What the caller's handle shows of the task that the situation is about.
    std::string outcome() const {
        return std::string(taskStateToName(handle->getState())) + " " +
               std::to_string(handle->getResult());
    }
    /// Whether anybody, such as a waiter, still holds that task.
    bool isTaskHeld() const { return !submitted.expired(); }

private:
    std::shared_ptr<concurrent::TaskHandle> submit(
        concurrent::TaskExecutor& target, std::function<concurrent::Executable::Result()> work,
        std::function<void()> callback) {
        auto const task = std::make_shared<concurrent::SubmittedTask>(
            work, concurrent::NORMAL,
            [callback](std::shared_ptr<concurrent::Task> const&) { callback(); }, "scene");
        submitted = task;
        return dynamic_cast<concurrent::TaskExecutorImpl&>(target).addSubmittedTaskToQueue(task);
    }

    void waitForTheEnd() {
        yieldUntilTrue([this] { return executor.expired() || toldToGoOn.isOpen(); });
        if (name == "queued" && !toldToGoOn.isOpen()) {
            queuedIsDropped.wait();
        }
    }

    std::string const name;
    std::weak_ptr<concurrent::TaskExecutor> const executor;
    std::shared_ptr<concurrent::TaskHandle> handle;
    std::weak_ptr<concurrent::SubmittedTask> submitted;
    Gate busy;
    Gate toldToGoOn;
    Gate waiterIsOut;
    Gate queuedIsDropped;
    std::thread waiter;
};

}  // namespace ovra::test
