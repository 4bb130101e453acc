#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

unsigned int submittedTaskPriorityToInitialRank(TaskPriority priority) {
    static constexpr unsigned int RANKS_FROM_NORMAL[] = {1000u, 1000000u, 0x7fffffffu};
    unsigned int const stepsAboveNormal = static_cast<unsigned int>(priority) - NORMAL;
    return stepsAboveNormal <= 2 ? RANKS_FROM_NORMAL[stepsAboveNormal] : 1u;
}

}  // namespace ovra::concurrent
