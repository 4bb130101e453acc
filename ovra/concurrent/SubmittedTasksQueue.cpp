#include <ovra/concurrent/SubmittedTasksQueue.h>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/IsExactly.h>
#include <ovra/concurrent/internal/RankedTasks.h>

namespace ovra::concurrent {

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : strategy(std::move(rankingStrategy)) {
    bool const keeps = !strategy || isExactly<HighestPriorityTaskRankingStrategy>(*strategy);
    computesRanks = keeps || isExactly<NoStarveTaskRankingStrategy>(*strategy);
    ranked = new RankedTasks(!keeps);
}

SubmittedTasksQueue::~SubmittedTasksQueue() {
    drop();  // Also what was added while another thread closed the queue.
    ranked->release();
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::addTask(std::shared_ptr<SubmittedTask> task) {
    return add(std::move(task), nullptr);
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::add(std::shared_ptr<SubmittedTask> task,
                                                     SubmissionMemory* memory) {
    if (isClosed() || !task) {
        return nullptr;
    }
    auto handle = TaskHandle::of(task, memory);
    RankedEntry& entry = task->rankedEntry();
    bool const isRanked =
        computesRanks && isExactly<SubmittedTask>(*task) && !entry.wasAdded.exchange(true);
    std::forward_list<QueuedTask> added;  // Made ahead of the lock, and released after it.
    if (!isRanked) {
        added.push_front({std::move(task), 0});
    }
    std::lock_guard<std::mutex> const lock(mutex);
    if (!isRanked || !ranked->insert(entry, task, ++addedSoFar)) {
        if (isRanked) {
            added.push_front({std::move(task), 0});
        }
        added.front().second = ++addedSoFar;
        tasks.splice_after(tasks.before_begin(), added);
    }
    condition.notify_one();
    return handle;
}

// The rule: each task's score is compared, newest first, and its rank updated; the best is taken.
std::shared_ptr<SubmittedTask> SubmittedTasksQueue::getNextTask() {
    if (isClosed()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    SortKey best;
    std::shared_ptr<SubmittedTask> found;
    try {
        for (auto const& [task, order] : tasks) {
            ranked->scanTo(order);
            unsigned int const score =
                task->getRank() + static_cast<unsigned int>(task->getUniqueIndex());
            if (SortKey const key{score, order, &task->rankedEntry()}; best < key) {
                best = key;
                found = task;
            }
            if (strategy) {
                strategy->updateRank(task.get());
            }
        }
    } catch (...) {
        ranked->endScan();
        throw;
    }
    // The shortcut: does the same for the tasks whose ranks are computed.
    if (auto next = ranked->pick(best)) {
        found = std::move(next);
    }
    if (!tasks.empty()) {
        tasks.remove_if([&](QueuedTask const& queued) { return queued.first == found; });
    }
    return found;
}

void SubmittedTasksQueue::close() {
    if (!isClosed()) {
        drop();
    }
}

void SubmittedTasksQueue::drop() {
    std::forward_list<QueuedTask> dropped;  // Destroyed with no lock held.
    std::unique_lock<std::mutex> lock(mutex);
    RankedEntry* entry = ranked->eraseAll();
    closed = true;
    condition.notify_all();
    dropped.swap(tasks);
    lock.unlock();
    while (entry != nullptr) {
        auto const task = std::move(entry->task);
        entry = entry->next;
    }
}

bool SubmittedTasksQueue::isEmpty() {
    std::lock_guard<std::mutex> const lock(mutex);
    return !hasTasks();
}

bool SubmittedTasksQueue::isClosed() const {
    return closed;
}

bool SubmittedTasksQueue::hasTasks() const {
    return !tasks.empty() || !ranked->isEmpty();
}

}  // namespace ovra::concurrent
