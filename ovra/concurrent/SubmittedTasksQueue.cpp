#include <utility>

#include <ovra/concurrent/SettledTasks.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

namespace {

static_assert(std::atomic<bool>::is_always_lock_free);

constexpr std::size_t PREFETCH_AHEAD = 16;

}  // namespace

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
    bool const isNew = task->link(handle);

    std::int32_t const index = task->getUniqueIndex();
    bool const isPlain = isExactly<SubmittedTask>(*task);
    std::lock_guard<std::mutex> const lock(mutex);
    hasRepeats |= !isNew;
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
    QueuedTask* walked = nullptr;
    Urgency greatest;
    bool settles = false;
    for (std::size_t i = tasks.size(); i-- > 0;) {
        if (i >= PREFETCH_AHEAD) {
            SettledTasks::prefetchRank(tasks[i - PREFETCH_AHEAD]);
        }
        QueuedTask& queued = tasks[i];
        if (!queued.task) {
            continue;
        }
        if (Urgency const urgency = SettledTasks::urgencyOf(queued); urgency > greatest) {
            walked = &queued;
            greatest = urgency;
        }
        queued.isFinal = settled->updateRank(queued);
        settles |= queued.isFinal;
    }
    // The shortcut: of the tasks whose ranks no pick changes, only the first needs to be compared.
    auto const first = settled->best();
    bool const isSettled = first.urgency > greatest;
    if (!isSettled && walked == nullptr) {
        return nullptr;
    }

    std::shared_ptr<SubmittedTask> next = isSettled ? first.queued->task : walked->task;
    settled->remove(*next);
    if (settles || hasRepeats || gone * 2 > tasks.size()) {
        clearAway(next);
    } else if (!isSettled) {
        walked->task.reset();
        ++gone;
    }
    return next;
}

// Removes every entry of `next`, those that settle now and those that have been taken.
void SubmittedTasksQueue::clearAway(std::shared_ptr<SubmittedTask> const& next) {
    auto kept = tasks.begin();
    for (QueuedTask& queued : tasks) {
        bool const stays =
            queued.task && queued.task != next && !(queued.isFinal && settled->add(queued));
        if (stays) {
            if (&*kept != &queued) {
                *kept = std::move(queued);
            }
            ++kept;
        }
    }
    tasks.erase(kept, tasks.end());
    gone = 0;
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
    gone = 0;
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
    return tasks.size() > gone || !settled->isEmpty();
}

}  // namespace ovra::concurrent
