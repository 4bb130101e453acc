// What several tests of the queue need.

#pragma once

#include <pthread.h>

#include <functional>
#include <memory>
#include <utility>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <tests/concurrent/Work.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {

/// Both strategies of the library, where they must not differ.
using Strategies =
    ::testing::Types<HighestPriorityTaskRankingStrategy, NoStarveTaskRankingStrategy>;

class ScriptedStrategy : public TaskRankingStrategy {
public:
    explicit ScriptedStrategy(std::function<void(SubmittedTask*)> toDo) : action(std::move(toDo)) {}
    void updateRank(SubmittedTask* task) override { action(task); }

private:
    std::function<void(SubmittedTask*)> const action;
};

inline std::shared_ptr<SubmittedTasksQueue> makeScriptedQueue(
    std::function<void(SubmittedTask*)> action) {
    return std::make_shared<SubmittedTasksQueue>(
        std::make_shared<ScriptedStrategy>(std::move(action)));
}

/// Of a class of the application's own: a pick scans it.
inline std::shared_ptr<SubmittedTask> scannedSubmission() {
    class ScannedTask : public SubmittedTask {
    public:
        using SubmittedTask::SubmittedTask;
    };
    return std::make_shared<ScannedTask>(succeed(), NORMAL, Callback(), "scanned");
}

inline pthread_mutex_t* mutexOf(SubmittedTasksQueue& queue) {
    return test::mutexesLockedBy([&queue] { queue.isEmpty(); }).at(0);
}

}  // namespace ovra::concurrent
