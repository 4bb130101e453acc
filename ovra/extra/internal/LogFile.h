#pragma once

#include <sys/uio.h>

#include <cstdint>

#include <ovra/extra/internal/Descriptor.h>

namespace ovra::extra {

/// A regular file that is open for appending lines, or none.
///
/// *Threads*: Not thread-safe. While the object is open, its descriptor names an open file, also in
/// a process that is forked at any moment.
class LogFile {
public:
    /// None.
    LogFile() = default;

    /// Opens the file at `path`, or makes it, with mode 0640 less the umask. None where that fails,
    /// or where something else than a regular file is there. Never blocks.
    static LogFile open(char const* path);

    bool isOpen() const { return descriptor.isOpen(); }
    /// Whether both are the same file.
    bool isSameAs(LogFile const& other) const;
    /// Whether `path` names this file now.
    bool isAt(char const* path) const;

    /// Asks the system for the size, and returns whether the file still has a name. If the system
    /// does not answer, keeps the known size and returns true. If others have written to the file,
    /// looks at its last line too.
    bool look();
    /// The size as far as known: what the last look() saw, and what has been appended here since.
    std::uint64_t size() const { return knownSize; }
    /// Whether the last line lacks its newline, as far as known. False where the file may only be
    /// written to, until a line is torn here.
    bool isTorn() const { return torn; }

    /// Appends all pieces with one call of the system, and continues if that call wrote less.
    /// Returns whether all has been written. Changes `pieces`.
    bool append(iovec* pieces, int count);
    bool sync() const;
    /// Syncs everything on the file system that the file is on.
    bool syncFileSystem() const;

    /// Takes the lock on the file (flock(2)); false if it is not free, or on failure.
    bool tryLock() const;
    void unlock() const;

private:
    void lookAtEnd();

    Descriptor descriptor;
    bool torn = false;
    std::uint64_t knownSize = 0;
};

}  // namespace ovra::extra
