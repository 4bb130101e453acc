#pragma once

#include <ovra/extra/Export.h>
#include <ovra/extra/Outcome.h>
#include <ovra/fs/FilePath.h>

namespace ovra::extra {

/// Removes `root` and, if it is a directory, all that is below it, also while others write to it.
///
///     a directory                  -> removed with every kind of entry in it
///     anything else                -> removed
///     a link                       -> removed, in the tree as well; its target stays
///     "name/"                      -> as "name", even if that is a link
///     nothing                      -> MISSING
///     ".", "a/..", "/"             -> REFUSED
///     ""                           -> MISSING
///     a path with a NUL byte       -> REFUSED
///
/// Links on the way to `root` are followed. Links at `root` and below it are not followed. Nobody
/// can lead the removal out of the tree by putting a link in the place of a directory, or by moving
/// a directory. A directory that is moved out while it is being emptied may be emptied further, and
/// nothing around its new place is touched. What others put in the place of `root` meanwhile is
/// removed as well.
///
/// Mount points below `root` are not crossed: they stay, and with them the directories that they
/// are in (`BUSY`). A directory on another device counts as a mount point. A mount point at `root`
/// itself is emptied, and stays (`BUSY`). Before Linux 5.8, the call does not recognise a mount
/// point on the device of `root` in a directory that the process may not change, and empties it.
///
/// *Limits*: at most 16 descriptors at a time and a fixed amount of stack, however deep the tree
/// is. The heap holds the names of the directories that are still to be removed, and about 100
/// bytes for each level. The path of `root` may be as long as the system accepts; the paths below
/// it may be longer. A directory to which others keep adding entries is given up after ten scans,
/// and so is a `root` that others have replaced ten times (`EXISTS`).
///
/// *Threads*: Thread-safe. Two calls that remove one tree at the same time help each other.
///
/// *Failure*: goes on with the rest, and returns the first failure. An entry that vanished
/// meanwhile is no failure. A directory stays if there is no memory for the names in it
/// (`NO_MEMORY`). Throws `std::bad_alloc` before it begins, and then nothing has changed.
OVRA_EXTRA_API Outcome removeTree(fs::FilePath const& root);

}  // namespace ovra::extra
