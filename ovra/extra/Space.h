#pragma once

#include <cstdint>

#include <ovra/extra/Export.h>
#include <ovra/extra/Outcome.h>
#include <ovra/fs/FilePath.h>

namespace ovra::extra {

/// How much room there is on a file system.
struct Space {
    std::uint64_t totalBytes = 0;      ///< Of the whole file system.
    std::uint64_t freeBytes = 0;       ///< Includes those reserved for the superuser.
    std::uint64_t availableBytes = 0;  ///< What an ordinary user can still write.
    std::uint64_t totalEntries = 0;    ///< 0 where the file system counts none: btrfs, vfat.
    std::uint64_t freeEntries = 0;     ///< Those that can still be made; 0 if `totalEntries` is 0.
    bool readOnly = false;             ///< Mounted for reading only.
};

/// Asks for the space on the file system that `entry`, of any kind, lies on. Links are followed.
///
///     nothing at that path   -> MISSING
///     a path with a NUL byte -> REFUSED
///
/// *Threads*: Thread-safe.
///
/// *Failure*: `space` stays as it was.
OVRA_EXTRA_API Outcome readSpace(fs::FilePath const& entry, Space& space);

}  // namespace ovra::extra
