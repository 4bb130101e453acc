#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include <ovra/extra/internal/KeptErrno.h>

namespace ovra::extra {

/// Owns an open descriptor, or none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int opened) : number(opened) {}
    Descriptor(Descriptor&& other) noexcept : number(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        Descriptor old(std::exchange(number, other.release()));
        return *this;
    }
    /// Keeps `errno`, which may hold an earlier failure.
    ~Descriptor() {
        KeptErrno const kept;
        close();
    }

    bool isOpen() const { return number >= 0; }
    int get() const { return number; }
    int release() { return std::exchange(number, -1); }

    /// Whether nothing failed. The descriptor is closed in any case, also when a signal interrupts.
    bool close() { return !isOpen() || ::close(release()) == 0 || errno == EINTR; }

    /// Writes all of `bytes`, however many calls that takes. A failure leaves its reason in
    /// `errno`.
    bool write(std::string_view bytes) const {
        while (!bytes.empty()) {
            ssize_t const written = ::write(number, bytes.data(), bytes.size());
            if (written > 0) {
                bytes.remove_prefix(static_cast<std::size_t>(written));
            } else if (written == 0) {
                errno = EIO;
                return false;
            } else if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }

private:
    int number = -1;
};

/// Opens `path`, below `directory` unless it is absolute. Close-on-exec. A failure leaves its
/// reason in `errno`.
inline Descriptor openBelow(int directory, char const* path, int flags, mode_t mode = 0) {
    constexpr int MOST_INTERRUPTIONS = 100;
    int opened = -1;
    for (int tries = 0; tries < MOST_INTERRUPTIONS; ++tries) {
        opened = ::openat(directory, path, flags | O_CLOEXEC | O_NOCTTY, mode);
        if (opened >= 0 || errno != EINTR) {
            break;
        }
    }
    return Descriptor(opened);
}

}  // namespace ovra::extra
