#pragma once

#include <memory>

#include <ovra/concurrent/TaskExecutorWorker.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>

namespace ovra::concurrent {

/// A queue that one worker serves. Closes the queue before it destroys the worker.
class WorkerTest : public test::BoundedTest {
protected:
    ~WorkerTest() override { stop(); }

    void start() {
        worker = std::make_shared<TaskExecutorWorker>(queue);
        worker->start();
    }
    void stop() {
        if (queue) {
            queue->close();
        }
        worker.reset();
    }
    std::shared_ptr<TaskHandle> add(Work const& work, char const* name = "work") {
        return queue->addTask(submission(work, NORMAL, name));
    }
    /// Runs `work` and returns once it has ended.
    void run(Work const& work, char const* name = "work") { add(work, name)->waitForCompletion(); }

    std::shared_ptr<SubmittedTasksQueue> queue = makeQueue();
    std::shared_ptr<TaskExecutorWorker> worker;
};

}  // namespace ovra::concurrent
