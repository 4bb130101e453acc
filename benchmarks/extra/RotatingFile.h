#pragma once

#include <cstdint>

#include <ovra/extra.h>

#include <benchmarks/support/TemporaryDirectory.h>

namespace ovra::bench {

/// The line that all contestants write.
inline constexpr char const* LINE = "[bench:INFO] Moving current task 1000 into EXECUTING state.";
/// Small enough that a file is moved now and then.
inline constexpr std::uint64_t MAX_BYTES = 10 << 20;

}  // namespace ovra::bench
