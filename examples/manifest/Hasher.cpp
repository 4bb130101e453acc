#include "Hasher.h"

#include <exception>
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

Hasher::Hasher(std::shared_ptr<concurrent::TaskExecutor> workers,
               std::shared_ptr<Progress> sharedProgress, Interrupt& ctrlC)
    : executor(std::move(workers)), progress(std::move(sharedProgress)), interrupt(ctrlC) {
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

bool Hasher::isSmall(std::int64_t sizeBytes) {
    return sizeBytes < LARGE_FILE_BYTES;
}

bool Hasher::submit(std::shared_ptr<HashTask> const& task) {
    bool const goesAhead = isSmall(task->sizeBytes());
    std::lock_guard<std::mutex> const lock(mutex);
    if (cancelled) {
        return false;
    }
    auto handle = executor->submitTask(task, goesAhead ? concurrent::HIGH : concurrent::NORMAL, {});
    if (!handle) {
        throw std::runtime_error("the executor takes no more work");
    }
    handles.push_back(std::move(handle));
    small += goesAhead ? 1 : 0;
    return true;
}

void Hasher::raise(std::size_t number) {
    handles[number - forgotten]->updatePriority(concurrent::HIGHEST);
}

void Hasher::cancel() {
    std::lock_guard<std::mutex> const lock(mutex);
    cancelled = true;
    for (auto const& handle : handles) {
        if (handle != nullptr) {
            handle->cancel();
        }
    }
}

std::size_t Hasher::submitted() const {
    return forgotten + handles.size();
}

std::size_t Hasher::submittedAsSmall() const {
    return small;
}

void Hasher::waitFor(std::size_t number) {
    // Kept until it has ended: `cancel()` needs it.
    auto const handle = handles[number - forgotten];
    handle->waitForCompletion();
    {
        std::lock_guard<std::mutex> const lock(mutex);
        handles[number - forgotten].reset();
        while (!handles.empty() && handles.front() == nullptr) {
            handles.pop_front();
            ++forgotten;
        }
    }
    if (auto const thrown = handle->getException()) {
        std::rethrow_exception(thrown);
    }
}

}  // namespace manifest
