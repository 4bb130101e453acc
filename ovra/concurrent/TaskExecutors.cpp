#include <ovra/concurrent/TaskExecutors.h>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/log/Log.h>

namespace ovra::concurrent {

unsigned int const S_NUM_TASK_EXECUTOR_THREADS = 1;

namespace {

// An executor that could not start its thread has closed its queue: the next attempt needs another.
std::shared_ptr<TaskExecutor> startOn(std::shared_ptr<SubmittedTasksQueue>& queue,
                                      std::shared_ptr<TaskRankingStrategy> const& strategy) {
    if (queue->isClosed()) {
        queue = std::make_shared<SubmittedTasksQueue>(strategy);
    }
    return std::make_shared<TaskExecutorImpl>(S_NUM_TASK_EXECUTOR_THREADS, queue);
}

}  // namespace

std::shared_ptr<TaskExecutor> getHighestPriorityTaskExecutor() {
    static std::shared_ptr<TaskRankingStrategy> const strategy =
        std::make_shared<HighestPriorityTaskRankingStrategy>();
    static std::shared_ptr<SubmittedTasksQueue> queue =
        std::make_shared<SubmittedTasksQueue>(strategy);
    log::log(log::INFO, "TaskExecutors::getHighestPriorityTaskExecutor()",
             "HighestPriorityTaskExecutor Number of executor threads - %d",
             static_cast<int>(S_NUM_TASK_EXECUTOR_THREADS));
    static std::shared_ptr<TaskExecutor> const executor = startOn(queue, strategy);
    return executor;
}

std::shared_ptr<TaskExecutor> getNoStarveTaskExecutor() {
    static std::shared_ptr<TaskRankingStrategy> const strategy =
        std::make_shared<NoStarveTaskRankingStrategy>();
    static std::shared_ptr<SubmittedTasksQueue> queue =
        std::make_shared<SubmittedTasksQueue>(strategy);
    log::log(log::INFO, "TaskExecutors::getNoStarveTaskExecutor()",
             "NoStarveTaskExecutor Number of executor threads - %d",
             static_cast<int>(S_NUM_TASK_EXECUTOR_THREADS));
    static std::shared_ptr<TaskExecutor> const executor = startOn(queue, strategy);
    return executor;
}

}  // namespace ovra::concurrent
