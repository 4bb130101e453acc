#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace ovra::test {

enum class FileCall {
    OPEN,
    READ,
    WRITE,
    TOUCH,
    STAT,
    LSTAT,
    FSTAT,
    RENAME,
    UNLINK,
    LOCK,
    SYNC,
    SYNC_ALL
};
inline constexpr int FILE_CALLS = 12;

char const* nameOf(FileCall call);

/// While it lives, sees the calls that the calling thread makes of the system's functions on files,
/// before they are made, and can let them fail. Link FileCalls.cpp into the test.
///
/// Calls made from within a hook are not seen. Syncs are not made in earnest.
class FileCalls {
public:
    FileCalls();
    FileCalls(FileCalls const&) = delete;
    FileCalls& operator=(FileCalls const&) = delete;
    ~FileCalls();

    /// An error number to fail with, or 0 to go on.
    std::function<int(FileCall)> onCall;
    /// How many bytes of so many a write is to come to.
    std::function<std::size_t(std::size_t)> onWrite;
    /// What the clock shows, in seconds since the beginning of 1970; negative: the time.
    std::int64_t seconds = -1;

    std::vector<FileCall> made;

    int count(FileCall call) const;
};

/// Blocks of memory that the calling thread has asked for so far, if `countsAllocations`.
long allocations();

/// False where a sanitizer has the heap, and under clang.
bool countsAllocations();

}  // namespace ovra::test
