#pragma once

#include <cstdint>

namespace ovra::extra {

/// From now on `forkCount` counts. May throw `std::bad_alloc`, and then does nothing.
void countForks();

/// How many times `fork` has been called on the way from the first process to this one, modulo
/// 2^32. The value differs between a process and its child: an owner that noted another value is a
/// thread of the parent.
std::uint32_t forkCount() noexcept;

}  // namespace ovra::extra
