#pragma once

#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

/// What `submittedTaskPriorityToInitialRank` answers, for the library's own loops over many tasks.
///
/// Private to the library.
constexpr unsigned int initialRankOf(TaskPriority priority) {
    switch (priority) {
        case NORMAL:
            return 1000;
        case HIGH:
            return 1000000;
        case HIGHEST:
            return 0x7fffffff;
        case LOW:
            break;
    }
    return 1;
}

}  // namespace ovra::concurrent
