#include "Hasher.h"

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

#include "Messages.h"

namespace manifest {

namespace concurrent = ovra::concurrent;

namespace {

constexpr std::int64_t LARGE_FILE_BYTES = 1 << 20;

}  // namespace

std::shared_ptr<concurrent::TaskExecutor> makeExecutor(unsigned int jobs) {
    if (jobs == 0) {
        return concurrent::getNoStarveTaskExecutor();
    }
    auto const strategy = std::make_shared<concurrent::HighestPriorityTaskRankingStrategy>();
    auto const queue = std::make_shared<concurrent::SubmittedTasksQueue>(strategy);
    return std::make_shared<concurrent::TaskExecutorImpl>(jobs, queue);
}

/// What the completion callbacks touch. A callback may still be running when the last wait has
/// returned, so callbacks share it instead of referring to the hasher.
struct Hasher::UnderWay {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t count = 0;
    bool cancelled = false;
};

Hasher::Hasher(std::shared_ptr<concurrent::TaskExecutor> workers,
               std::shared_ptr<Progress> sharedProgress, Interrupt& ctrlC)
    : executor(std::move(workers)),
      progress(std::move(sharedProgress)),
      interrupt(ctrlC),
      underWay(std::make_shared<UnderWay>()) {
    interrupt.onRequest([this] {
        cancel();
        progress->finish();
        // Not logged: nothing may hold up the next Ctrl-C.
        say("interrupted: finishing the files that are being read");
    });
}

Hasher::~Hasher() {
    interrupt.onRequest({});
}

std::shared_ptr<concurrent::TaskHandle> Hasher::submit(std::shared_ptr<HashTask> const& task) {
    bool const isSmall = task->sizeBytes() < LARGE_FILE_BYTES;
    std::unique_lock<std::mutex> lock(underWay->mutex);
    underWay->changed.wait(
        lock, [this] { return underWay->count < MOST_UNDER_WAY || underWay->cancelled; });
    if (underWay->cancelled) {
        return nullptr;
    }
    auto handle =
        executor->submitTask(task, isSmall ? concurrent::HIGH : concurrent::NORMAL,
                             [shared = underWay](std::shared_ptr<concurrent::Task> const&) {
                                 std::lock_guard<std::mutex> const callbackLock(shared->mutex);
                                 --shared->count;
                                 shared->changed.notify_one();
                             });
    if (!handle) {
        throw std::runtime_error("the executor takes no more work");
    }
    ++underWay->count;
    small += isSmall ? 1 : 0;
    handles.push_back(handle);
    return handle;
}

void Hasher::cancel() {
    std::lock_guard<std::mutex> const lock(underWay->mutex);
    underWay->cancelled = true;
    underWay->changed.notify_one();
    for (auto const& handle : handles) {
        handle->cancel();
    }
}

std::size_t Hasher::submitted() const {
    return handles.size();
}

std::size_t Hasher::submittedAsSmall() const {
    return small;
}

bool Hasher::isReady(std::size_t number) const {
    return handles[number]->getState() == concurrent::Executable::DONE;
}

void Hasher::waitFor(std::size_t number) {
    handles[number]->waitForCompletion();
    if (auto const thrown = handles[number]->getException()) {
        std::rethrow_exception(thrown);
    }
}

}  // namespace manifest
