#include <ovra/concurrent/TaskExecutorImpl.h>

#include <algorithm>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/internal/SubmissionMemory.h>

namespace ovra::concurrent {

namespace {

constexpr unsigned int MAX_WORKERS = 12;

// Makes a task in `memory` and queues it.
template <typename... Parts>
std::shared_ptr<TaskHandle> submit(SubmittedTasksQueue* queue, SubmissionMemory* memory,
                                   Parts const&... parts) {
    auto task = std::allocate_shared<SubmittedTask>(
        SubmissionMemory::Allocator<SubmittedTask>(memory), parts...);
    return queue != nullptr ? queue->add(std::move(task), memory) : nullptr;
}

}  // namespace

TaskExecutorImpl::TaskExecutorImpl(unsigned int numThreads,
                                   std::shared_ptr<SubmittedTasksQueue> const& tasksQueue)
    : queue(tasksQueue) {
    unsigned int const count = queue ? std::min(numThreads, MAX_WORKERS) : 0;
    // Outlives the handler, which closes the queue: the worker's destructor joins.
    std::shared_ptr<TaskExecutorWorker> worker;
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
    return submit(queue.get(), SubmissionMemory::make(false), task, priority, callback);
}

std::shared_ptr<TaskHandle> TaskExecutorImpl::submitTask(
    std::function<Executable::Result()> const& function, TaskPriority priority,
    std::function<void(std::shared_ptr<Task>)> const& callback, char const* name) {
    if (!function && !callback) {
        return nullptr;
    }
    auto* const memory = SubmissionMemory::make(true);
    return submit(queue.get(), memory, memory, function, priority, callback, name);
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
