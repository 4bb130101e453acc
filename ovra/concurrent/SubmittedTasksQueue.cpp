#include <ovra/concurrent/SubmittedTasksQueue.h>

#include <utility>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/IsExactly.h>
#include <ovra/concurrent/internal/RankedTasks.h>

namespace ovra::concurrent {

static_assert(std::atomic<bool>::is_always_lock_free);

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : strategy(std::move(rankingStrategy)) {
    bool const doubles = strategy && isExactly<NoStarveTaskRankingStrategy>(*strategy);
    computesRanks =
        doubles || !strategy || isExactly<HighestPriorityTaskRankingStrategy>(*strategy);
    ranked = std::make_shared<RankedTasks>(doubles);
}

SubmittedTasksQueue::~SubmittedTasksQueue() {
    drop();  // Also what was added while another thread closed the queue.
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::addTask(std::shared_ptr<SubmittedTask> task) {
    if (isClosed() || !task) {
        return nullptr;
    }
    auto handle = TaskHandle::of(task);
    task->setHandle(handle);
    push(std::move(task));
    return handle;
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::addUnsharedTask(
    std::shared_ptr<SubmittedTask> task) {
    if (isClosed()) {
        return nullptr;
    }
    auto handle = TaskHandle::of(task);
    task->setFirstHandle(handle);
    push(std::move(task));
    return handle;
}

void SubmittedTasksQueue::push(std::shared_ptr<SubmittedTask> task) {
    RankedEntry& entry = task->rankedEntry();
    bool const isRanked = computesRanks && isExactly<SubmittedTask>(*task) &&
                          !entry.wasAdded.exchange(true) && task->isRankInRange();
    std::forward_list<QueuedTask> added;  // Made ahead of the lock, and released after it.
    if (!isRanked) {
        added.push_front({std::move(task), 0});
    }
    std::lock_guard<std::mutex> const lock(mutex);
    ++addedSoFar;
    if (isRanked) {
        ranked->insert(ranked, entry, task, addedSoFar);
    } else {
        added.front().order = addedSoFar;
        tasks.splice_after(tasks.before_begin(), added);
    }
    condition.notify_one();
}

// The rule: each task's score is compared, newest first, and its rank updated; the best is taken.
std::shared_ptr<SubmittedTask> SubmittedTasksQueue::getNextTask() {
    if (isClosed()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    SortKey best;
    std::shared_ptr<SubmittedTask> found;
    for (QueuedTask const& queued : tasks) {
        SubmittedTask& task = *queued.task;
        ranked->scanTo(queued.order);
        unsigned int const score =
            task.getRank() + static_cast<unsigned int>(task.getUniqueIndex());
        if (SortKey const key{score, queued.order, &task.rankedEntry()}; key > best) {
            best = key;
            found = queued.task;
        }
        if (strategy) {
            strategy->updateRank(&task);
        }
    }
    // The shortcut: the same for the tasks whose ranks are computed.
    if (auto next = ranked->pick(best)) {
        found = std::move(next);
    } else if (found && ranked->holds(*best.entry)) {
        ranked->erase(*best.entry);
    }
    tasks.remove_if([&](QueuedTask const& queued) { return queued.task == found; });
    return found;
}

void SubmittedTasksQueue::close() {
    if (!isClosed()) {
        drop();
    }
}

void SubmittedTasksQueue::drop() {
    std::forward_list<QueuedTask> dropped;  // Dies when no lock is held.
    RankedEntry* entry = nullptr;
    {
        std::lock_guard<std::mutex> const lock(mutex);
        closed = true;
        condition.notify_all();
        dropped.swap(tasks);
        entry = ranked->eraseAll();
    }
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
