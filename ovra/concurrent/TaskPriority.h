#pragma once

#include <cstdint>

#include <ovra/Export.h>

OVRA_NOT_A_MACRO(LOW);
OVRA_NOT_A_MACRO(NORMAL);
OVRA_NOT_A_MACRO(HIGH);
OVRA_NOT_A_MACRO(HIGHEST);

namespace ovra::concurrent {

/// The priority of a task. Every value outside the enumeration counts as `LOW`.
enum TaskPriority : std::int32_t {
    LOW = 1,      ///< Initial rank 1.
    NORMAL = 2,   ///< Initial rank 1000.
    HIGH = 3,     ///< Initial rank 1000000.
    HIGHEST = 4,  ///< Initial rank 2147483647.
};

/// The rank a task of this priority starts with; larger runs earlier.
///
///     LOW -> 1   NORMAL -> 1000   HIGH -> 1000000   HIGHEST -> 2147483647   anything else -> 1
OVRA_API unsigned int submittedTaskPriorityToInitialRank(TaskPriority priority);

}  // namespace ovra::concurrent
