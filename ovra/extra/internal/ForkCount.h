#pragma once

#include <cstdint>

namespace ovra::extra {

/// From now on `forkCount` counts. Never waits for another thread. May throw `std::bad_alloc`, and
/// then does nothing.
void countForks();

/// A number that grows with each `fork` on the way from the first process to this one, modulo 2^32.
/// It differs between a process and its child: an owner that noted another value is a thread of the
/// parent.
std::uint32_t forkCount() noexcept;

}  // namespace ovra::extra
