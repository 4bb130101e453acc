#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include <ovra/concurrent/TaskPriority.h>

namespace ovra::concurrent {

/// The initial ranks of 0, `LOW`, `NORMAL`, `HIGH` and `HIGHEST`.
inline constexpr std::array<unsigned int, 5> INITIAL_RANKS{1, 1, 1000, 1000000, 0x7fffffff};

/// The same as `submittedTaskPriorityToInitialRank`, inline for the library's own use.
///
/// Private to the library.
constexpr unsigned int initialRankOf(TaskPriority priority) {
    auto const place = static_cast<std::size_t>(priority);
    return place < INITIAL_RANKS.size() ? INITIAL_RANKS[place] : INITIAL_RANKS[0];
}

/// `rank`, clamped to the range from the initial rank of `priority` to the highest.
///
/// Private to the library.
constexpr unsigned int clampedRank(unsigned int rank, TaskPriority priority) {
    return std::max(std::min(rank, INITIAL_RANKS.back()), initialRankOf(priority));
}

}  // namespace ovra::concurrent
