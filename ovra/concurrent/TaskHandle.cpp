#include <ovra/concurrent/TaskHandle.h>

#include <ovra/concurrent/internal/SubmissionMemory.h>
#include <ovra/concurrent/internal/WeakTask.h>

namespace ovra::concurrent {

static_assert(std::atomic<Executable::State>::is_always_lock_free &&
              std::atomic<Executable::Result>::is_always_lock_free);

TaskHandle::TaskHandle(std::shared_ptr<SubmittedTaskProxy> const& taskProxy)
    : link(taskProxy),
      state(taskProxy && taskProxy->getState ? taskProxy->getState() : Executable::DONE),
      result(taskProxy && taskProxy->getResult ? taskProxy->getResult() : Executable::SUCCESS) {}

std::shared_ptr<TaskHandle> TaskHandle::of(std::shared_ptr<SubmittedTask> const& submitted,
                                           SubmissionMemory* memory) {
    if (memory == nullptr) {
        auto handle = std::make_shared<TaskHandle>(Private(), submitted);
        submitted->setHandle(handle);
        return handle;
    }
    auto handle = std::allocate_shared<TaskHandle>(SubmissionMemory::Allocator<TaskHandle>(memory),
                                                   Private(), submitted);
    submitted->setFirstHandle(handle);
    return handle;
}

TaskHandle::TaskHandle(Private, std::shared_ptr<SubmittedTask> const& submitted)
    : link(std::weak_ptr<SubmittedTask>(submitted)),
      state(Executable::UNSCHEDULED),
      result(Executable::NO_RESULT) {}

TaskHandle::~TaskHandle() = default;

void TaskHandle::cancel() {
    if (auto const* const task = std::get_if<WeakTask>(&link)) {
        concurrent::cancel(*task);
    } else if (auto const& proxy = std::get<Proxy>(link); proxy && proxy->cancel) {
        proxy->cancel();
    }
}

void TaskHandle::updatePriority(TaskPriority priority) {
    if (auto const* const task = std::get_if<WeakTask>(&link)) {
        concurrent::updatePriority(*task, priority);
    } else if (auto const& proxy = std::get<Proxy>(link); proxy && proxy->updatePriority) {
        proxy->updatePriority(priority);
    }
}

void TaskHandle::waitForCompletion() {
    if (auto const* const task = std::get_if<WeakTask>(&link)) {
        concurrent::waitForCompletion(*task);
    } else if (auto const& proxy = std::get<Proxy>(link); proxy && proxy->waitForCompletion) {
        proxy->waitForCompletion();
    }
    // If the task no longer exists, this acquire load synchronises with the worker's last
    // setResult(). The fence would do, but ThreadSanitizer does not model fences.
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
