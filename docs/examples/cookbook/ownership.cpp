// Which of executor, task and handle keeps what alive.

#include <iostream>
#include <memory>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

using namespace ovra::concurrent;

int main() {
    auto executor = std::make_unique<TaskExecutorImpl>(
        0,  // No worker: whatever is submitted stays in the queue.
        std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>()));
    auto resource = std::make_shared<int>(1);
    std::weak_ptr<int> const seen = resource;
    auto handle = executor->submitTask([held = std::move(resource)] { return Executable::SUCCESS; },
                                       NORMAL, nullptr, "owner");

    std::cout << "queued: the task holds what its function holds: " << !seen.expired() << '\n';
    executor.reset();
    std::cout << "the executor was destroyed, and the task with it: " << seen.expired() << '\n';
    std::cout << "the handle keeps the last state: "
              << (handle->getState() == Executable::UNSCHEDULED) << '\n';
}
