#pragma once

#include <cerrno>
#include <cstdint>
#include <utility>

#include <ovra/extra/Export.h>

namespace ovra::extra {

/// How an operation ended, and why it failed if it did. Every operation of this library that says
/// so leaves `errno` as it was.
///
/// An enumerator stands for what the caller can do about a failure, not for one error number:
///
///     0                             -> DONE
///     ENOENT, ENOTDIR               -> MISSING
///     EEXIST, ENOTEMPTY             -> EXISTS
///     EACCES, EPERM                 -> DENIED
///     EROFS                         -> READ_ONLY
///     ENOSPC, EDQUOT, EFBIG         -> FULL
///     EBUSY, ETXTBSY, EAGAIN        -> BUSY
///     EISDIR, EINVAL, EXDEV, ENXIO, ENODEV -> WRONG_KIND
///     ENAMETOOLONG                  -> NAME_TOO_LONG
///     ELOOP, EMLINK                 -> TOO_MANY_LINKS
///     EMFILE, ENFILE                -> NO_DESCRIPTORS
///     ENOMEM                        -> NO_MEMORY
///     EIO, EUCLEAN, EBADMSG, ESTALE -> DAMAGED
///     any other                     -> OTHER
enum class Outcome : std::int32_t {
    DONE,             ///< All of it is done.
    DONE_NOT_SYNCED,  ///< Done, but a loss of power may still undo it.
    MISSING,          ///< The entry, or a directory on the way to it, does not exist.
    EXISTS,           ///< Another entry is in the way, or a directory is not empty.
    DENIED,           ///< The process may not do this.
    READ_ONLY,        ///< The file system is mounted for reading only.
    FULL,             ///< No space, no quota or no larger file is left.
    BUSY,             ///< The entry is in use; the same call may succeed later.
    WRONG_KIND,       ///< The entry is not of the kind that the operation works on.
    NAME_TOO_LONG,    ///< The path, or one name in it, is too long.
    TOO_MANY_LINKS,   ///< Symbolic links that lead in a circle, or too many links to one entry.
    NO_DESCRIPTORS,   ///< The process, or the system, has too many files open.
    NO_MEMORY,        ///< The system had no memory for it.
    DAMAGED,          ///< The medium, the file system or the server behind it fails.
    REFUSED,          ///< The library itself refused; no call of the system failed.
    OTHER,            ///< A failure of any other kind.
};

/// The name of the enumerator, such as "DONE". Any other value -> "UNKNOWN". A literal: it lives as
/// long as the library is loaded.
OVRA_EXTRA_API char const* outcomeName(Outcome outcome);

/// The outcome that an error number of the system stands for, by the table above: 0 -> `DONE`.
OVRA_EXTRA_API Outcome outcomeOf(int systemError);

/// Runs `operation`, whose result converts to `bool`, and says why it was false.
///
///     the result is true                           -> DONE
///     false, and a call of the system failed        -> the outcome of that call's error
///     false, and no call of the system failed       -> REFUSED
///
/// Where several calls failed, the last one decides. A true result is `DONE`, whatever failed on
/// the way. Works with every operation of `ovra::fs` whose result is a `bool`:
///
///     Outcome const outcome = attempt([&] { return file.Move(target); });
///
/// *Threads*: the operation runs on the caller's thread, and leaves `errno` as it was.
///
/// *Failure*: what the operation throws reaches the caller, with `errno` as it was.
template <typename Operation>
Outcome attempt(Operation&& operation) {
    struct KeptError {
        int const value = errno;
        ~KeptError() { errno = value; }
    } const kept;
    errno = 0;
    if (static_cast<bool>(std::forward<Operation>(operation)())) {
        return Outcome::DONE;
    }
    int const error = errno;
    return error == 0 ? Outcome::REFUSED : outcomeOf(error);
}

}  // namespace ovra::extra
