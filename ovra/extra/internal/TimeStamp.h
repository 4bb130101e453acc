#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ovra::extra {

/// The length of "2026-11-21T16:32:37.236Z ", the blank included.
inline constexpr std::size_t TIME_STAMP_LENGTH = 25;

/// Writes such a stamp, without a terminator: UTC, `seconds` and `milliseconds` after the beginning
/// of 1970. Years from 1970 to 9999. Takes no lock, unlike the C library's functions for this.
void writeTimeStamp(char* text, std::int64_t seconds, unsigned int milliseconds) noexcept;

/// Writes stamps one after the other, and mostly changes only the last digits of the stamp before.
///
/// *Threads*: Not thread-safe. Usable in a forked process, whatever another thread was doing.
class TimeStamps {
public:
    /// As `writeTimeStamp`.
    void write(char* stamp, std::int64_t seconds, unsigned int milliseconds) noexcept;

private:
    char text[TIME_STAMP_LENGTH] = {};
    std::atomic<std::uint32_t> second{0};  // Of `text`, modulo 2^32. 0: none yet, or in 1970.
};

}  // namespace ovra::extra
