#include <utility>

#include <ovra/concurrent/SettledTasks.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

static_assert(std::atomic<bool>::is_always_lock_free);

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : settled(std::make_unique<SettledTasks>(rankingStrategy.get())),
      strategy(std::move(rankingStrategy)) {}

SubmittedTasksQueue::~SubmittedTasksQueue() {
    close();
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::addTask(std::shared_ptr<SubmittedTask> task) {
    if (isClosed() || !task) {
        return nullptr;
    }
    auto handle = std::make_shared<TaskHandle>(std::weak_ptr<SubmittedTask>(task));
    task->setHandle(handle);

    std::int32_t const index = task->getUniqueIndex();
    bool const isPlain = isExactly<SubmittedTask>(*task);
    std::lock_guard<std::mutex> const lock(mutex);
    QueuedTask queued{std::move(task), ++addedSoFar, index, isPlain};
    if (!settled->isFinal(queued) || !settled->add(queued)) {
        tasks.push_back(std::move(queued));
    }
    condition.notify_one();
    return handle;
}

std::shared_ptr<SubmittedTask> SubmittedTasksQueue::getNextTask() {
    if (isClosed()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    settled->rekeyChanged(tasks);

    // The rule: the largest score runs next, and each task's rank is updated once it was compared.
    SettledTasks::Candidate best;
    for (auto queued = tasks.rbegin(); queued != tasks.rend(); ++queued) {
        if (Urgency const urgency = SettledTasks::urgencyOf(*queued); urgency > best.urgency) {
            best = {&*queued, urgency};
        }
        queued->isFinal = settled->updateRank(*queued);
    }
    // The shortcut: of the tasks whose ranks no pick changes, only the first needs to be compared.
    if (auto const first = settled->best(); first.urgency > best.urgency) {
        best = first;
    }
    if (best.queued == nullptr) {
        return nullptr;
    }

    std::shared_ptr<SubmittedTask> next = best.queued->task;
    settled->remove(*next);
    auto kept = tasks.begin();
    for (QueuedTask& queued : tasks) {
        if (queued.task != next && !(queued.isFinal && settled->add(queued))) {
            if (&*kept != &queued) {
                *kept = std::move(queued);
            }
            ++kept;
        }
    }
    tasks.erase(kept, tasks.end());
    return next;
}

void SubmittedTasksQueue::close() {
    if (isClosed()) {
        return;
    }
    std::vector<QueuedTask> dropped;  // Made and swapped without memory, unlike other containers.
    SettledTasks::Places droppedSettled;
    std::lock_guard<std::mutex> const lock(mutex);
    closed = true;
    dropped.swap(tasks);
    droppedSettled = settled->takeAll();
    condition.notify_all();
}

bool SubmittedTasksQueue::isEmpty() {
    std::lock_guard<std::mutex> const lock(mutex);
    return !hasTasks();
}

bool SubmittedTasksQueue::isClosed() const {
    return closed;
}

bool SubmittedTasksQueue::hasTasks() const {
    return !tasks.empty() || !settled->isEmpty();
}

}  // namespace ovra::concurrent
