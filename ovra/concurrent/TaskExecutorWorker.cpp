#include <ovra/concurrent/TaskExecutorWorker.h>

#include <pthread.h>

#include <exception>
#include <mutex>
#include <utility>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/log/Log.h>

namespace ovra::concurrent {

namespace {

char const RUN_TAG[] = "TaskExecutorWorker::run()";
char const END_TAG[] = "~TaskExecutorWorker()";

void nameThisThread(char const* name) {
    pthread_setname_np(pthread_self(), name != nullptr ? name : "unnamed");
}

}  // namespace

TaskExecutorWorker::TaskExecutorWorker(std::shared_ptr<SubmittedTasksQueue> const& source)
    : queue(source) {}

TaskExecutorWorker::~TaskExecutorWorker() {
    terminate();
    if (thread.joinable()) {
        log::log(log::ERROR, END_TAG,
                 "The process ends, as the worker's thread cannot be joined: the executor's last "
                 "reference was released on its own worker, or the worker was started after "
                 "terminate().");
        std::terminate();  // Now, before anything is freed under the running thread.
    }
}

void TaskExecutorWorker::start() {
    std::thread started(&TaskExecutorWorker::run, this);
    if (thread.joinable()) {
        log::log(
            log::ERROR, "TaskExecutorWorker::start()",
            "The process ends, as the worker's last thread has not been joined: start a worker "
            "once.");
    }
    thread = std::move(started);
}

void TaskExecutorWorker::run() {
    log::log(log::INFO, RUN_TAG, "Starting task executor worker thread.");
    while (terminated != 1) {
        fetchTask();
        if (currentTask) {
            runTask();
        } else if (!waitForWork()) {
            break;
        }
    }
    log::log(log::INFO, RUN_TAG, "Terminating task executor worker thread.");
}

void TaskExecutorWorker::fetchTask() {
    if (auto const source = queue.lock()) {
        currentTask = source->getNextTask();
    } else {
        currentTask.reset();
    }
}

void TaskExecutorWorker::runTask() {
    if (currentTask->isCancelledNow()) {
        currentTask->setResult(Executable::ABORTED);
        currentTask->setPromiseValue();
        return;  // The task is held until the next fetch replaces it.
    }
    nameThisThread(currentTask->taskName());
    currentTask->execute();
    currentTask->performCallback();
    currentTask.reset();
}

// False once the queue is closed.
bool TaskExecutorWorker::waitForWork() {
    auto const source = queue.lock();
    if (!source) {
        return true;
    }
    std::unique_lock<std::mutex> lock(source->mutex);
    if (source->isClosed()) {
        return false;
    }
    // A task that was added since the fetch found none has already notified: do not sleep then.
    if (!source->hasTasks()) {
        source->condition.wait(lock);
    }
    return true;
}

void TaskExecutorWorker::terminate() {
    if (terminated.exchange(1) == 1) {
        return;
    }
    try {
        thread.join();
    } catch (std::exception const& e) {
        // A `std::system_error`, or what is thrown when there is no memory for one.
        log::logVerbatim(log::ERROR, END_TAG, "Worker thread join failed due to '%s'!\n", e.what());
    }
}

}  // namespace ovra::concurrent
