#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <tests/concurrent/Work.h>

namespace ovra::extra::test {

/// An executor whose only worker is the test itself.
class ManualExecutor : public concurrent::TaskExecutorImpl {
public:
    ManualExecutor() : ManualExecutor(concurrent::makeQueue()) {}

    /// What a worker does with the next task. False if there is none.
    bool runNext() {
        auto const task = queue->getNextTask();
        if (!task) {
            return false;
        }
        if (task->isCancelled()) {
            task->setResult(concurrent::Executable::ABORTED);
            task->setPromiseValue();
        } else {
            task->execute();
            task->performCallback();
        }
        return true;
    }
    void runAll() {
        while (runNext()) {
        }
    }
    /// The next task, not started, in the test's own hands.
    std::shared_ptr<concurrent::SubmittedTask> takeNext() { return queue->getNextTask(); }
    void close() { queue->close(); }

private:
    explicit ManualExecutor(std::shared_ptr<concurrent::SubmittedTasksQueue> const& served)
        : TaskExecutorImpl(0, served), queue(served) {}

    std::shared_ptr<concurrent::SubmittedTasksQueue> const queue;
};

/// Keeps what it is given, and answers with a handle of no task, or throws.
class RecordingExecutor : public concurrent::TaskExecutor {
public:
    std::shared_ptr<concurrent::TaskHandle> submitTask(
        std::shared_ptr<concurrent::Task> const& givenTask, concurrent::TaskPriority givenPriority,
        concurrent::Callback const& givenCallback) override {
        task = givenTask;
        name = task ? task->name() : nullptr;
        return answer(givenPriority, givenCallback);
    }
    std::shared_ptr<concurrent::TaskHandle> submitTask(concurrent::Work const& givenFunction,
                                                       concurrent::TaskPriority givenPriority,
                                                       concurrent::Callback const& givenCallback,
                                                       char const* givenName) override {
        function = givenFunction;
        name = givenName;
        return answer(givenPriority, givenCallback);
    }
    bool isIdle() override { return isIdleNow; }

    int submissions = 0;
    std::shared_ptr<concurrent::Task> task;
    concurrent::Work function;
    concurrent::TaskPriority priority{};
    concurrent::Callback callback;
    char const* name = nullptr;
    bool isIdleNow = true;
    bool throws = false;
    bool refuses = false;

private:
    std::shared_ptr<concurrent::TaskHandle> answer(concurrent::TaskPriority givenPriority,
                                                   concurrent::Callback const& givenCallback) {
        ++submissions;
        if (throws) {
            throw std::runtime_error("refused loudly");
        }
        if (refuses) {
            return nullptr;
        }
        priority = givenPriority;
        callback = givenCallback;
        return std::make_shared<concurrent::TaskHandle>(nullptr);
    }
};

}  // namespace ovra::extra::test
