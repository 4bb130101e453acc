#include <ovra/concurrent/TaskHandle.h>

#include <ovra/concurrent/internal/WeakTask.h>

namespace ovra::concurrent {

static_assert(std::atomic<Executable::State>::is_always_lock_free &&
              std::atomic<Executable::Result>::is_always_lock_free);

TaskHandle::TaskHandle(std::shared_ptr<SubmittedTaskProxy> const& taskProxy)
    : proxy(taskProxy),
      state(proxy && proxy->getState ? proxy->getState() : Executable::DONE),
      result(proxy && proxy->getResult ? proxy->getResult() : Executable::SUCCESS) {}

std::shared_ptr<TaskHandle> TaskHandle::of(std::weak_ptr<SubmittedTask> const& submitted) {
    return std::make_shared<TaskHandle>(Private(), submitted);
}

TaskHandle::TaskHandle(Private, std::weak_ptr<SubmittedTask> const& submitted)
    : task(submitted), state(Executable::UNSCHEDULED), result(Executable::NO_RESULT) {}

TaskHandle::~TaskHandle() = default;

void TaskHandle::cancel() {
    if (!proxy) {
        concurrent::cancel(task);
    } else if (proxy->cancel) {
        proxy->cancel();
    }
}

void TaskHandle::updatePriority(TaskPriority priority) {
    if (!proxy) {
        concurrent::updatePriority(task, priority);
    } else if (proxy->updatePriority) {
        proxy->updatePriority(priority);
    }
}

void TaskHandle::waitForCompletion() {
    if (!proxy) {
        concurrent::waitForCompletion(task);
    } else if (proxy->waitForCompletion) {
        proxy->waitForCompletion();
    }
    // If the task is gone, this acquire load synchronises with the worker's last setResult(). The
    // fence would do, but ThreadSanitizer does not model fences.
    static_cast<void>(getResult());
}

Executable::State TaskHandle::getState() const {
    return state.load(std::memory_order_acquire);
}

Executable::Result TaskHandle::getResult() const {
    return result.load(std::memory_order_acquire);
}

bool TaskHandle::isDone() const {
    return getState() == Executable::DONE || getState() == Executable::CANCELLED;
}

std::exception_ptr TaskHandle::getException() const {
    // Pairs with the release of the state that was pushed after the exception.
    static_cast<void>(getState());
    return exception;
}

void TaskHandle::setState(Executable::State newState) {
    state.store(newState, std::memory_order_release);
}

void TaskHandle::setResult(Executable::Result newResult) {
    result.store(newResult, std::memory_order_release);
}

void TaskHandle::setException(std::exception_ptr const& newException) {
    exception = newException;
}

}  // namespace ovra::concurrent
