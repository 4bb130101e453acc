#pragma once

#include <cstdint>
#include <string>

#include <ovra/extra/Export.h>
#include <ovra/extra/Outcome.h>
#include <ovra/fs/FilePath.h>

namespace ovra::extra {

/// Lets one process at a time do something: the process that holds the lock on a file.
///
/// The lock belongs to this object, so that a second object on the same file, in this process or
/// another, finds it held. The lock is advisory (flock(2)): it stops nobody who does not ask for
/// it. While it is held, the file contains the id of the process, for people to read, unless the
/// process may only read the file.
///
/// *Ownership*: the lock ends with unlock(), with this object or with the process, however that
/// ends. A program that the process executes does not hold it. The file itself stays, with the id
/// of its last holder.
///
/// *After fork*: the parent holds the lock, the child does not. In the child, unlock() and the
/// destructor only close a copy of the descriptor. If the parent ends without unlock(), the lock
/// lasts until the child has closed its copy: by tryLock(), by unlock(), by the destructor, by
/// `exec` or when the child ends. A child that another thread forks during tryLock() may hold a
/// copy that only `exec` or the child's end closes.
///
/// *Threads*: Not thread-safe: the caller synchronises.
///
/// *Failure*: tryLock() returns the reason. Throws only `std::bad_alloc`, and then the lock is not
/// taken. A limit on the size of files (`RLIMIT_FSIZE`) that leaves no room for the id raises
/// SIGXFSZ, which ends the process unless it is ignored.
class OVRA_EXTRA_API LockFile {
public:
    /// Does not touch the file system. tryLock() resolves a relative path against the current
    /// directory at the time of the call.
    explicit LockFile(fs::FilePath const& file);
    LockFile(LockFile const&) = delete;
    LockFile& operator=(LockFile const&) = delete;
    ~LockFile();

    /// Takes the lock if it is free, and never waits for it. Makes the file if there is none, with
    /// the mode 0644 less the umask.
    ///
    ///     held by this object                -> DONE
    ///     held by another object             -> BUSY
    ///     anything but a regular file        -> WRONG_KIND, without blocking
    ///     no directory to make the file in   -> MISSING
    ///     a path with a NUL byte             -> REFUSED
    ///
    /// If the file is deleted or replaced while it is being locked, the file that the path then
    /// names is locked instead. If the locked file is deleted later, nobody notices, and the next
    /// process locks a new file: never delete the file. It is no failure if the id cannot be
    /// written, or if the process may only read the file.
    Outcome tryLock();

    /// Releases the lock. Does nothing if this object does not hold it.
    void unlock();

    /// Whether this object holds the lock for this process: false in a forked child.
    bool isLocked() const;

private:
    std::string const path;
    int descriptor = -1;
    // The process that took the lock. Neither member is enough alone: a child in a namespace of its
    // own can have the same id, and a child that was made without `fork` has the same count.
    std::int32_t owner = 0;
    std::uint32_t forks = 0;
};

}  // namespace ovra::extra
