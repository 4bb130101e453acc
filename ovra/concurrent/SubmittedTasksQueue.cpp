#include <utility>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

namespace ovra::concurrent {

namespace {

unsigned int scoreOf(SubmittedTask const& task) {
    return task.getRank() + static_cast<unsigned int>(task.getUniqueIndex());
}

}  // namespace

SubmittedTasksQueue::SubmittedTasksQueue(std::shared_ptr<TaskRankingStrategy> rankingStrategy)
    : strategy(std::move(rankingStrategy)) {}

SubmittedTasksQueue::~SubmittedTasksQueue() {
    close();
}

std::shared_ptr<TaskHandle> SubmittedTasksQueue::addTask(std::shared_ptr<SubmittedTask> task) {
    if (isClosed() || !task) {
        return nullptr;
    }
    auto handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
    task->setHandle(handle);

    std::lock_guard<std::mutex> const lock(mutex);
    tasks.push_front(std::move(task));
    condition.notify_one();
    return handle;
}

std::shared_ptr<SubmittedTask> SubmittedTasksQueue::getNextTask() {
    if (isClosed()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    std::shared_ptr<SubmittedTask> best;
    unsigned int bestScore = 0;
    for (auto const& task : tasks) {
        unsigned int const score = scoreOf(*task);
        if (score > bestScore) {
            best = task;
            bestScore = score;
        }
        if (strategy) {
            strategy->updateRank(task.get());
        }
    }
    if (best) {
        tasks.remove(best);
    }
    return best;
}

void SubmittedTasksQueue::close() {
    if (isClosed()) {
        return;
    }
    std::forward_list<std::shared_ptr<SubmittedTask>> dropped;
    std::lock_guard<std::mutex> const lock(mutex);
    closed = true;
    dropped.swap(tasks);
    condition.notify_all();
}

bool SubmittedTasksQueue::isEmpty() {
    std::lock_guard<std::mutex> const lock(mutex);
    return tasks.empty();
}

bool SubmittedTasksQueue::isClosed() const {
    return closed;
}

}  // namespace ovra::concurrent
