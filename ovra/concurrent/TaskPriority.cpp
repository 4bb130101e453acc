#include <ovra/concurrent/TaskPriority.h>
#include <ovra/concurrent/internal/InitialRank.h>

namespace ovra::concurrent {

unsigned int submittedTaskPriorityToInitialRank(TaskPriority priority) {
    return initialRankOf(priority);
}

}  // namespace ovra::concurrent
