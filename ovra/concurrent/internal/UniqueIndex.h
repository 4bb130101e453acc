#pragma once

#include <atomic>
#include <cstdint>

#include <ovra/Export.h>

namespace ovra::concurrent {

/// The unique index that was given last: every task takes the next smaller one, and `INT32_MAX`
/// follows `INT32_MIN`.
///
/// Private to the library. Here so that tests can start late in its life.
OVRA_LOCAL extern std::atomic<std::int32_t> s_uniqueIndexCounter;

}  // namespace ovra::concurrent
