#pragma once

#include <memory>

#include <ovra/concurrent/TaskExecutorImpl.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>

namespace ovra::concurrent {

/// A queue, and executors that serve it.
class ExecutorTest : public test::BoundedTest {
protected:
    std::shared_ptr<TaskExecutorImpl> makeExecutor(unsigned int threads) {
        return std::make_shared<TaskExecutorImpl>(threads, queue);
    }

    std::shared_ptr<SubmittedTasksQueue> queue = makeQueue();
};

}  // namespace ovra::concurrent
