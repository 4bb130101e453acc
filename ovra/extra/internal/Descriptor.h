#pragma once

#include <fcntl.h>
#include <pthread.h>
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
    bool close() {
        if (!isOpen()) {
            return true;
        }
        // To cancel the thread here, in a destructor, would end the process.
        int before;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        bool const isClosed = ::close(release()) == 0 || errno == EINTR;
        pthread_setcancelstate(before, nullptr);
        return isClosed;
    }

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
    // The C library for 32-bit ARM runs no destructors of a thread that is cancelled here.
    int before;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    for (int tries = MOST_INTERRUPTIONS; tries > 0; --tries) {
        opened = ::openat(directory, path, flags | O_CLOEXEC | O_NOCTTY, mode);
        if (opened >= 0 || errno != EINTR) {
            break;
        }
    }
    pthread_setcancelstate(before, nullptr);
    return Descriptor(opened);
}

}  // namespace ovra::extra
