#include <ovra/concurrent/SubmittedTasksQueue.h>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/RankedTasks.h>

namespace ovra::concurrent {

static void destroy(RankedEntry* entry) {
    for (std::shared_ptr<SubmittedTask> task; entry != nullptr; entry = entry->next) {
        task = std::move(entry->task);  // Destroys the one before.
    }
}

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : ranked(new RankedTasks(rankingStrategy.get())), strategy(std::move(rankingStrategy)) {}

SubmittedTasksQueue::~SubmittedTasksQueue() {
    close();
    destroy(hasTasks() ? ranked->eraseAll() : nullptr);  // Added while another thread closed it.
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
    std::lock_guard<std::mutex> const lock(mutex);
    if (!ranked->insert(task, ++addedSoFar)) {
        tasks.emplace_front(std::move(task), addedSoFar);
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
    for (auto const& [task, order] : tasks) {
        ranked->scanTo(order);
        auto const score = task->getRank() + static_cast<unsigned int>(task->getUniqueIndex());
        if (SortKey const key{score, order, &task->rankedEntry()}; best < key) {
            best = key;
            found = task;
        }
        if (strategy) {
            strategy->updateRank(task.get());
        }
    }
    // The shortcut: does the same for the tasks whose ranks are computed.
    ranked->pick(best, found);
    tasks.remove_if([&](auto const& queued) { return queued.first == found; });
    return found;
}

void SubmittedTasksQueue::close() {
    if (isClosed()) {
        return;
    }
    decltype(tasks) dropped;  // Destroyed with no lock held.
    std::unique_lock<std::mutex> lock(mutex);
    RankedEntry* entry = ranked->eraseAll();
    closed = true;
    condition.notify_all();
    dropped.swap(tasks);
    lock.unlock();
    destroy(entry);
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
