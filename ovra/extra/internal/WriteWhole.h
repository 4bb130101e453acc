#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace ovra::extra {

/// Writes all the bytes: continues a short write, and repeats one that a signal interrupted. False
/// if one fails, with its `errno`. Async-signal-safe.
inline bool writeWhole(int descriptor, char const* bytes, std::size_t count) {
    while (count > 0) {
        ssize_t const written = ::write(descriptor, bytes, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace ovra::extra
