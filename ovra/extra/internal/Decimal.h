#pragma once

#include <cstddef>
#include <cstdint>

namespace ovra::extra {

/// The most digits that `writeDecimal` writes.
inline constexpr std::size_t MOST_DIGITS = 20;

/// Writes the number without a terminator, and returns the end of its digits.
char* writeDecimal(char* text, std::uint64_t number) noexcept;

}  // namespace ovra::extra
