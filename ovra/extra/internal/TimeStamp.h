#pragma once

#include <cstddef>
#include <cstdint>

namespace ovra::extra {

/// The length of "2026-11-21T16:32:37.236Z ", the blank included.
inline constexpr std::size_t TIME_STAMP_LENGTH = 25;

/// Writes such a stamp, without a terminator: UTC, `seconds` and `milliseconds` after the beginning
/// of 1970. Years from 1970 to 9999. Takes no lock, unlike the C library's functions for this.
void writeTimeStamp(char* text, std::int64_t seconds, unsigned int milliseconds) noexcept;

}  // namespace ovra::extra
