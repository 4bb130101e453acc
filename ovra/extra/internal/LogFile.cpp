#include <ovra/extra/internal/LogFile.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace ovra::extra {

namespace {

// Repeats the call until no signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

Descriptor openForAppending(char const* path, int access) {
    constexpr mode_t MODE = 0640;
    return openBelow(AT_FDCWD, path, access | O_APPEND | O_CREAT | O_NONBLOCK, MODE);
}

bool isSame(struct stat const& first, struct stat const& second) {
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

LogFile LogFile::open(char const* path) {
    struct stat status;
    // Checked first: opening a device may have effects of its own.
    if (::stat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        return LogFile();
    }
    // Reading serves only the look at the last line, so it may be refused.
    LogFile file;
    file.descriptor = openForAppending(path, O_RDWR);
    if (!file.isOpen() && errno == EACCES) {
        file.descriptor = openForAppending(path, O_WRONLY);
    }
    if (!file.isOpen() || ::fstat(file.descriptor.get(), &status) != 0 ||
        !S_ISREG(status.st_mode)) {
        return LogFile();
    }
    file.knownSize = static_cast<std::uint64_t>(status.st_size);
    file.lookAtEnd();
    return file;
}

bool LogFile::isSameAs(LogFile const& other) const {
    struct stat mine;
    struct stat others;
    return ::fstat(descriptor.get(), &mine) == 0 && ::fstat(other.descriptor.get(), &others) == 0 &&
           isSame(mine, others);
}

bool LogFile::isAt(char const* path) const {
    struct stat mine;
    struct stat there;
    return ::fstat(descriptor.get(), &mine) == 0 && ::stat(path, &there) == 0 &&
           isSame(mine, there);
}

bool LogFile::look() {
    struct stat status;
    if (::fstat(descriptor.get(), &status) != 0) {
        return true;
    }
    auto const size = static_cast<std::uint64_t>(status.st_size);
    if (size != knownSize) {
        knownSize = size;
        lookAtEnd();
    }
    return status.st_nlink > 0;
}

// While another thread or process writes a line, the system may show a part of it. That line is not
// torn. Setting the file's times waits until the line is there, because the system makes one change
// of a file after the other. (On some file systems an empty write does not wait.)
void LogFile::lookAtEnd() {
    constexpr int MOST_LINES = 100;  // Somebody may append for ever what is no line.
    for (int lines = 0; lines < MOST_LINES; ++lines) {
        char last = '\n';
        if (knownSize > 0 && uninterrupted([&] {
                                 auto const end = static_cast<off_t>(knownSize);
                                 return ::pread(descriptor.get(), &last, 1, end - 1);
                             }) != 1) {
            return;
        }
        torn = last != '\n';
        if (!torn) {
            return;
        }
        ::futimens(descriptor.get(), nullptr);
        struct stat status;
        if (::fstat(descriptor.get(), &status) != 0) {
            return;
        }
        auto const size = static_cast<std::uint64_t>(status.st_size);
        if (size == knownSize) {
            return;
        }
        knownSize = size;
    }
}

bool LogFile::append(iovec* pieces, int count) {
    while (count > 0) {
        ssize_t const result = uninterrupted([&] {
            return count == 1 ? ::write(descriptor.get(), pieces->iov_base, pieces->iov_len)
                              : ::writev(descriptor.get(), pieces, count);
        });
        if (result <= 0) {
            return false;
        }
        knownSize += static_cast<std::size_t>(result);
        for (auto written = static_cast<std::size_t>(result); written > 0;) {
            std::size_t const part = std::min(written, pieces->iov_len);
            auto* const rest = static_cast<char*>(pieces->iov_base) + part;
            torn = part > 0 ? rest[-1] != '\n' : torn;
            written -= part;
            *pieces = {rest, pieces->iov_len - part};
            if (pieces->iov_len == 0) {
                ++pieces;
                --count;
            }
        }
    }
    return true;
}

bool LogFile::sync() const {
    return uninterrupted([&] { return ::fdatasync(descriptor.get()); }) == 0;
}

bool LogFile::syncFileSystem() const {
    return uninterrupted([&] { return ::syncfs(descriptor.get()); }) == 0;
}

bool LogFile::tryLock() const {
    return uninterrupted([&] { return ::flock(descriptor.get(), LOCK_EX | LOCK_NB); }) == 0;
}

void LogFile::unlock() const {
    ::flock(descriptor.get(), LOCK_UN);
}

}  // namespace ovra::extra
