#pragma once

#include <string_view>

#include <ovra/extra/Export.h>
#include <ovra/extra/Outcome.h>
#include <ovra/fs/FilePath.h>

namespace ovra::extra {

/// Gives `file` the contents `contents`. At any moment, also after a loss of power, the file has
/// either all of its old contents or all of the new ones. Blocks until the new ones are on the
/// medium.
///
/// The new contents are written beside the file, as ".NAME.XXXXXX", where NAME is cut if the whole
/// would be too long. That temporary file is made exclusively and has the mode 0600 until it is
/// complete. It is synced and renamed over `file`; then the directory is synced. For a new file, an
/// empty file of such a name is first made and removed, to learn the mode. A temporary file stays
/// if the process ends in the middle, or if the system refuses to remove it.
///
///     a regular file             -> replaced; its mode and owner are kept, see below
///     nothing                    -> made, with the mode 0666 less the umask
///     a link                     -> its target is replaced, or made if it dangles; the link stays
///     another user's link in a directory such as /tmp -> DENIED, see below
///     a link of /proc to an open file that has lost its name -> WRONG_KIND
///     a directory, a pipe, ...   -> WRONG_KIND, before anything is made
///     "name/", with a separator at the end -> WRONG_KIND
///     in a directory that does not exist   -> MISSING
///     ""                         -> MISSING
///     a path with a NUL byte     -> REFUSED
///     empty contents             -> an empty file
///
/// In a directory with the sticky bit that everybody may write to, a link to the file is followed
/// only if it belongs to the effective user of the process or to the owner of the directory. Linux
/// has the same rule where `fs.protected_symlinks` is set.
///
/// The file is a new one to the system: other hard links to the old file, and whoever has the old
/// file open, keep the old contents. Access control lists and extended attributes of the old file
/// are not kept; the new one has those that the directory gives to new files. The owner and the
/// group are kept as far as the process is allowed to give a file away; where they are not kept,
/// the set-user-id and set-group-id bits are cleared.
///
/// *Threads*: Thread-safe. Two calls that replace one file at the same time leave the contents of
/// one of them.
///
/// *Failure*: the old file is untouched and the temporary file is removed. A limit on the size of
/// files (`RLIMIT_FSIZE`) raises SIGXFSZ, which ends the process unless it is ignored; then the
/// result is `FULL`. `DONE_NOT_SYNCED`: the new contents are in place, but the directory could not
/// be opened or synced, so that a loss of power may bring the old contents back. A sync that fails
/// is not tried again. Throws `std::bad_alloc`, and then nothing has changed.
OVRA_EXTRA_API Outcome replaceFile(fs::FilePath const& file, std::string_view contents);

/// Blocks until the contents of a file, or the entries of a directory, are on the medium.
///
///     a link                            -> what it leads to is synced
///     anything but a file or directory  -> WRONG_KIND, without blocking
///     a path with a NUL byte            -> REFUSED
///
/// *Threads*: Thread-safe.
///
/// *Failure*: a sync that fails is not tried again, because the system may report the loss of data
/// only once.
OVRA_EXTRA_API Outcome syncFile(fs::FilePath const& entry);

}  // namespace ovra::extra
