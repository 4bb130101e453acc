#pragma once

#include <cstdint>

namespace ovra::extra {

/// From now on `forkCount` counts. May throw `std::bad_alloc`, and then does nothing.
void countForks();

/// How many times `fork` has been called on the way from the first process to this one, modulo
/// 2^32. The value differs between a process and its child, and so distinguishes an owner that
/// exists from one whose thread exists only in the parent.
std::uint32_t forkCount() noexcept;

}  // namespace ovra::extra
