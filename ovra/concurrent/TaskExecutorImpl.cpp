#include <algorithm>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>

namespace ovra::concurrent {

namespace {

constexpr unsigned int MAX_WORKERS = 12;

}  // namespace

TaskExecutorImpl::TaskExecutorImpl(unsigned int numThreads,
                                   std::shared_ptr<SubmittedTasksQueue> const& tasksQueue)
    : queue(tasksQueue) {
    unsigned int const count = queue ? std::min(numThreads, MAX_WORKERS) : 0;
    std::shared_ptr<TaskExecutorWorker> worker;  // Outlives the handler: it joins, once closed.
    try {
        for (unsigned int i = 0; i < count; ++i) {
            worker = std::make_shared<TaskExecutorWorker>(queue);
            worker->start();
            workers.push_front(worker);
        }
    } catch (...) {
        shutDown();
        throw;
    }
}

TaskExecutorImpl::~TaskExecutorImpl() {
    shutDown();
    workers.clear();
}

std::shared_ptr<TaskHandle> TaskExecutorImpl::submitTask(
    std::shared_ptr<Task> const& task, TaskPriority priority,
    std::function<void(std::shared_ptr<Task>)> const& callback) {
    if (!task && !callback) {
        return nullptr;
    }
    return queue ? queue->addUnsharedTask(std::make_shared<SubmittedTask>(task, priority, callback))
                 : nullptr;
}

std::shared_ptr<TaskHandle> TaskExecutorImpl::submitTask(
    std::function<Executable::Result()> const& function, TaskPriority priority,
    std::function<void(std::shared_ptr<Task>)> const& callback, char const* name) {
    if (!function && !callback) {
        return nullptr;
    }
    return queue ? queue->addUnsharedTask(
                       std::make_shared<SubmittedTask>(function, priority, callback, name))
                 : nullptr;
}

bool TaskExecutorImpl::isIdle() {
    return !queue || queue->isEmpty();
}

std::shared_ptr<TaskHandle> TaskExecutorImpl::addSubmittedTaskToQueue(
    std::shared_ptr<SubmittedTask> const& task) {
    return queue ? queue->addTask(task) : nullptr;
}

void TaskExecutorImpl::shutDown() {
    if (queue) {
        queue->close();
    }
    for (auto const& worker : workers) {
        worker->terminate();
    }
}

}  // namespace ovra::concurrent
