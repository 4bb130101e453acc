#include <cstddef>
#include <utility>

#include <ovra/concurrent/RankRule.h>
#include <ovra/concurrent/SettledTasks.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskLine.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

namespace {

static_assert(std::atomic<bool>::is_always_lock_free);

constexpr std::ptrdiff_t PREFETCH_AHEAD = 16;

}  // namespace

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : settled(std::make_unique<SettledTasks>(RankRule(rankingStrategy.get()))),
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
    // Made ahead of the lock: if it is not queued after all, it dies when no lock is held.
    QueuedTask queued{std::move(task), 0, index, isPlain};
    std::lock_guard<std::mutex> const lock(mutex);
    queued.order = ++addedSoFar;
    hasRepeats |= queued.task->wasAdded.load(std::memory_order_relaxed);
    queued.task->wasAdded.store(true, std::memory_order_relaxed);
    if (!settled->rule.isFinal(queued) || !settled->add(queued)) {
        tasks.push_back(std::move(queued));
    }
    condition.notify_one();
    return handle;
}

// What a pick finds on its walk.
struct SubmittedTasksQueue::Walk {
    QueuedTask* best = nullptr;
    Urgency urgency;
    bool settles = false;  // Some task has its final rank now.

    void consider(QueuedTask& queued, unsigned int rank) {
        if (Urgency const other = RankRule::urgencyOf(queued, rank); other > urgency) {
            best = &queued;
            urgency = other;
        }
    }
};

// The rule: the largest score runs next, and each task's rank is updated once it was compared.
template <bool ranksDouble>
SubmittedTasksQueue::Walk SubmittedTasksQueue::walk() {
    Walk walk;
    RankRule const rule = settled->rule;
    QueuedTask* const oldest = tasks.data();
    for (QueuedTask* entry = oldest + tasks.size(); entry != oldest;) {
        QueuedTask& queued = *--entry;
        if (entry - oldest >= PREFETCH_AHEAD) {
            RankRule::prefetch(entry[-PREFETCH_AHEAD]);
        }
        SubmittedTask* const task = queued.task.get();
        if (task == nullptr) {
            continue;
        }
        if (ranksDouble && queued.isPlain && RankRule::isOnlyWalked(*task)) {
            unsigned int const rank = RankRule::rankOf(*task);
            walk.consider(queued, rank);
            queued.isFinal = RankRule::doubleRank(*task, rank) == RankRule::LAST_DOUBLED;
        } else {
            walk.consider(queued, RankRule::rankOf(queued));
            rule.update(queued);
            queued.isFinal = rule.isFinal(queued);
        }
        walk.settles |= queued.isFinal;
    }
    return walk;
}

std::shared_ptr<SubmittedTask> SubmittedTasksQueue::getNextTask() {
    if (isClosed()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    settled->rekeyChanged(tasks);

    Walk const walked = settled->rule.doublesRanks() ? walk<true>() : walk<false>();
    // The shortcut: of the tasks whose ranks no pick changes, only the first needs to be compared.
    auto const first = settled->best();
    bool const isSettled = first.urgency > walked.urgency;
    if (!isSettled && walked.best == nullptr) {
        return nullptr;
    }

    // Its entry goes last, so that nothing is lost if a task cannot be locked on the way.
    std::shared_ptr<SubmittedTask> next = isSettled ? first.queued->task : walked.best->task;
    settled->remove(*next);
    std::size_t const goneThen = gone + (isSettled ? 0 : 1);
    if (walked.settles || hasRepeats || goneThen * 2 > tasks.size()) {
        clearAway(next);
    } else if (!isSettled) {
        walked.best->task.reset();
        gone = goneThen;
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
    TaskLine::giveBackMemory(tasks);
}

void SubmittedTasksQueue::close() {
    if (isClosed()) {
        return;
    }
    std::vector<QueuedTask> dropped;  // Made and swapped without memory, unlike other containers.
    SettledTasks::Places droppedSettled(settled->rule);
    std::lock_guard<std::mutex> const lock(mutex);
    closed = true;
    condition.notify_all();
    dropped.swap(tasks);
    gone = 0;
    droppedSettled = settled->takeAll();
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
