#pragma once

#include <atomic>
#include <memory>

#include <ovra/concurrent/SubmittedTask.h>

namespace ovra::concurrent {

// What a handle and a proxy do to a task, and what they return if it no longer exists.
//
// Private to the library.

inline Executable::State stateOf(std::weak_ptr<SubmittedTask> const& task) {
    auto const live = task.lock();
    return live ? live->getState() : Executable::DONE;
}

inline Executable::Result resultOf(std::weak_ptr<SubmittedTask> const& task) {
    auto const live = task.lock();
    return live ? live->getResult() : Executable::SUCCESS;
}

inline void updatePriority(std::weak_ptr<SubmittedTask> const& task, TaskPriority newPriority) {
    if (auto const live = task.lock()) {
        live->setPriority(newPriority);
    }
}

inline void cancel(std::weak_ptr<SubmittedTask> const& task) {
    if (auto const live = task.lock()) {
        live->setState(Executable::CANCELLED);
    }
}

inline void waitForCompletion(std::weak_ptr<SubmittedTask> const& task) {
    if (auto const live = task.lock()) {
        live->waitForEnd();
    } else {
        // The worker has released the task. The fence makes all that the worker did before that
        // visible to this thread.
        std::atomic_thread_fence(std::memory_order_acquire);
    }
}

}  // namespace ovra::concurrent
