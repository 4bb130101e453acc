#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace ovra::log::test {

/// One call of `syslog`.
struct SystemLogCall {
    int priority;
    char const* format;
    std::string text;  ///< What the system log would have written.
};

/// What becomes of a call of `vasprintf` or `asprintf`.
enum class Formatting {
    REAL,
    FAILS,        ///< Returns -1 and a buffer that is none.
    LEAVES_NULL,  ///< Returns 0 and a null buffer.
};

/// Watches and steers what the calling thread asks of the C library, for as long as it lives.
///
/// The test executable defines the functions concerned, and a definition in the executable is
/// the one that the shared object calls. Without a probe on the calling thread they do what they
/// always do, but for the system log, which tests must not fill: those lines are swallowed.
/// Hooks are not called for what happens inside a hook.
class CLibraryProbe {
public:
    CLibraryProbe();
    CLibraryProbe(CLibraryProbe const&) = delete;
    CLibraryProbe& operator=(CLibraryProbe const&) = delete;
    ~CLibraryProbe();

    std::vector<std::string> systemLogLines() const;

    std::vector<SystemLogCall> systemLogCalls;
    int openlogCalls = 0;
    int closelogCalls = 0;
    int vasprintfCalls = 0;
    int asprintfCalls = 0;

    Formatting vasprintfOutcome = Formatting::REAL;
    Formatting asprintfOutcome = Formatting::REAL;
    std::function<void()> onSystemLog;          ///< After the call was recorded.
    std::function<int(void const*)> onLock;     ///< Before a mutex is locked; not 0: the failure.
    std::function<void(void const*)> onUnlock;  ///< Before a mutex is unlocked.

    bool insideHook = false;

private:
    CLibraryProbe* const outer;
};

/// Counts what the calling thread allocates with `operator new`, for as long as it lives, and can
/// make one allocation fail.
class AllocationProbe {
public:
    AllocationProbe();
    AllocationProbe(AllocationProbe const&) = delete;
    AllocationProbe& operator=(AllocationProbe const&) = delete;
    ~AllocationProbe();

    int allocations = 0;
    int releases = 0;
    int failingAllocation = 0;  ///< 1: the next one; 0: none.
};

/// Bytes that the whole process holds on the heap.
std::size_t heapInUse();

/// Descriptors that the process holds open.
std::size_t openDescriptors();

}  // namespace ovra::log::test
