#pragma once

#include <atomic>
#include <cstdint>

#include <ovra/Export.h>

namespace ovra::concurrent {

/// The unique index that was given last: every task takes the next smaller one, and `INT32_MAX`
/// follows `INT32_MIN`.
///
/// Private to the library. In a header so that tests can start from a late index.
OVRA_LOCAL extern std::atomic<std::int32_t> s_uniqueIndexCounter;

}  // namespace ovra::concurrent
