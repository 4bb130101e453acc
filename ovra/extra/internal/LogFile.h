#pragma once

#include <sys/uio.h>

#include <cstdint>

#include <ovra/extra/internal/Descriptor.h>

namespace ovra::extra {

/// A regular file that is open for appending lines, or none.
///
/// *Threads*: Not thread-safe. At every moment, one at which the process is forked included, the
/// descriptor of an open one stands for an open file.
class LogFile {
public:
    /// None.
    LogFile() = default;

    /// Opens the file at `path`, or makes it, with mode 0640 less the umask. None where that fails,
    /// or where something else than a regular file is there; blocks on none.
    static LogFile open(char const* path);

    bool isOpen() const { return descriptor.isOpen(); }
    /// Whether both are the same file.
    bool isSameAs(LogFile const& other) const;
    /// Whether that is where the file is now.
    bool isAt(char const* path) const;

    /// Asks for the size, and whether the file still has a name. Without an answer: the size as
    /// known, and true.
    bool look();
    /// As far as known: what the last look saw, and what has been appended here since.
    std::uint64_t size() const { return knownSize; }
    /// Whether the last line is without its newline.
    bool isTorn() const { return torn; }

    /// Appends all of it with one call of the system, or goes on where that call came to less.
    /// Whether all has been written. Changes `pieces`.
    bool append(iovec* pieces, int count);
    bool sync() const;

    /// Locks the file against others that do so; false if another has it, or it cannot be done.
    bool tryLock() const;
    void unlock() const;

private:
    Descriptor descriptor;
    bool torn = false;
    std::uint64_t knownSize = 0;
};

}  // namespace ovra::extra
