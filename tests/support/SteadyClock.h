#pragma once

#include <atomic>
#include <cstdint>

namespace ovra::test {

/// What the steady clock of the whole process shows, in milliseconds; negative: the system's own
/// time. The executable defines `clock_gettime`, which the standard library calls.
extern std::atomic<std::int64_t> clockMs;

}  // namespace ovra::test
