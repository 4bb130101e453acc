#include <ovra/concurrent/TaskRankingStrategy.h>

#include <algorithm>

#include <ovra/concurrent/SubmittedTask.h>

namespace ovra::concurrent {

TaskRankingStrategy::~TaskRankingStrategy() = default;

HighestPriorityTaskRankingStrategy::~HighestPriorityTaskRankingStrategy() = default;

void HighestPriorityTaskRankingStrategy::updateRank(SubmittedTask*) {}

NoStarveTaskRankingStrategy::~NoStarveTaskRankingStrategy() = default;

void NoStarveTaskRankingStrategy::updateRank(SubmittedTask* task) {
    unsigned int const rank = task->getRank();
    // A subclass may return a rank whose double wraps; a rank never decreases.
    task->setRank(std::max(rank, rank * 2u));
}

}  // namespace ovra::concurrent
