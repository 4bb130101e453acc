#include <ovra/concurrent/InitialRank.h>
#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

unsigned int submittedTaskPriorityToInitialRank(TaskPriority priority) {
    return initialRankOf(priority);
}

}  // namespace ovra::concurrent
