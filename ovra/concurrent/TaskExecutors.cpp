#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/log/Log.h>

namespace ovra::concurrent {

unsigned int const S_NUM_TASK_EXECUTOR_THREADS = 1;

std::shared_ptr<TaskExecutor> getHighestPriorityTaskExecutor() {
    static std::shared_ptr<TaskRankingStrategy> const strategy =
        std::make_shared<HighestPriorityTaskRankingStrategy>();
    static std::shared_ptr<SubmittedTasksQueue> const queue =
        std::make_shared<SubmittedTasksQueue>(strategy);
    log::log(log::INFO, "TaskExecutors::getHighestPriorityTaskExecutor()",
             "HighestPriorityTaskExecutor Number of executor threads - %d",
             static_cast<int>(S_NUM_TASK_EXECUTOR_THREADS));
    static std::shared_ptr<TaskExecutor> const executor =
        std::make_shared<TaskExecutorImpl>(S_NUM_TASK_EXECUTOR_THREADS, queue);
    return executor;
}

std::shared_ptr<TaskExecutor> getNoStarveTaskExecutor() {
    static std::shared_ptr<TaskRankingStrategy> const strategy =
        std::make_shared<NoStarveTaskRankingStrategy>();
    static std::shared_ptr<SubmittedTasksQueue> const queue =
        std::make_shared<SubmittedTasksQueue>(strategy);
    log::log(log::INFO, "TaskExecutors::getNoStarveTaskExecutor()",
             "NoStarveTaskExecutor Number of executor threads - %d",
             static_cast<int>(S_NUM_TASK_EXECUTOR_THREADS));
    static std::shared_ptr<TaskExecutor> const executor =
        std::make_shared<TaskExecutorImpl>(S_NUM_TASK_EXECUTOR_THREADS, queue);
    return executor;
}

}  // namespace ovra::concurrent
