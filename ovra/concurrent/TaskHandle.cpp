#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>

namespace ovra::concurrent {

static_assert(std::atomic<Executable::State>::is_always_lock_free &&
              std::atomic<Executable::Result>::is_always_lock_free);

TaskHandle::TaskHandle(std::shared_ptr<SubmittedTaskProxy> const& taskProxy)
    : proxy(taskProxy),
      state(proxy && proxy->getState ? proxy->getState() : Executable::DONE),
      result(proxy && proxy->getResult ? proxy->getResult() : Executable::SUCCESS) {}

TaskHandle::TaskHandle(std::weak_ptr<SubmittedTask> const& submittedTask)
    : task(submittedTask), state(Executable::DONE), result(Executable::SUCCESS) {
    if (auto const live = task.lock()) {
        setState(live->state);
        setResult(live->result);
    }
}

TaskHandle::~TaskHandle() = default;

void TaskHandle::cancel() {
    if (!proxy) {
        SubmittedTask::cancel(task);
    } else if (proxy->cancel) {
        proxy->cancel();
    }
}

void TaskHandle::updatePriority(TaskPriority priority) {
    if (!proxy) {
        SubmittedTask::updatePriority(task, priority);
    } else if (proxy->updatePriority) {
        proxy->updatePriority(priority);
    }
}

void TaskHandle::waitForCompletion() {
    if (!proxy) {
        SubmittedTask::waitForCompletion(task);
    } else if (proxy->waitForCompletion) {
        proxy->waitForCompletion();
    }
    // When the task is gone, nothing but its last push orders what it did before this thread:
    // checkers that know no fences see it so too.
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
