#pragma once

#include <cstdint>

#include <ovra/Export.h>

OVRA_NOT_A_MACRO(UNSCHEDULED);
OVRA_NOT_A_MACRO(READY);
OVRA_NOT_A_MACRO(EXECUTING);
OVRA_NOT_A_MACRO(CANCELLED);
OVRA_NOT_A_MACRO(DONE);
OVRA_NOT_A_MACRO(NO_RESULT);
OVRA_NOT_A_MACRO(SUCCESS);
OVRA_NOT_A_MACRO(FAILURE);
OVRA_NOT_A_MACRO(ABORTED);
OVRA_NOT_A_MACRO(REPEAT);

namespace ovra::concurrent {

/// A piece of work that an executor can run.
///
/// Derive from `Task`, which adds a name, rather than from this class.
///
/// *Threads*: an executor calls `execute()` on one worker thread at a time for each submission. An
/// object that is submitted twice can run on two threads at once. The caller synchronises what the
/// work shares with other threads.
class OVRA_API Executable {
public:
    /// Where a submitted task stands. Unscoped, so `Executable::DONE` is the usual spelling.
    enum State : std::int32_t {
        UNSCHEDULED = 1,  ///< Waiting in a queue; the state every submitted task starts in.
        READY = 2,        ///< Named for completeness: the executor moves no task into it.
        EXECUTING = 3,    ///< A worker has started the task.
        CANCELLED = 4,    ///< Cancellation was requested; the work may still be running.
        DONE = 5,         ///< Ended normally; also the state of a handle made for a destroyed task.
    };

    /// What became of the work.
    enum Result : std::int32_t {
        NO_RESULT = 1,  ///< None yet.
        SUCCESS = 2,    ///< Finished successfully.
        FAILURE = 3,    ///< Finished unsuccessfully, or `execute()` threw.
        ABORTED = 4,    ///< Cancelled before it produced `SUCCESS` or `FAILURE`.
        REPEAT = 5,  ///< "Run me again": at once, on the same worker, unless cancelled meanwhile.
    };

    Executable() = default;
    /// For subclasses that are copied; an executor copies no work.
    Executable(Executable const&) = default;
    /// For subclasses that are assigned.
    Executable& operator=(Executable const&) = default;
    virtual ~Executable();

    /// Runs the work once.
    ///
    /// Returns `SUCCESS`, `FAILURE` or `REPEAT`. Any other value becomes the result unchanged, or
    /// `ABORTED` if the task was cancelled.
    /// Whatever is thrown becomes `FAILURE`; a `std::exception` is kept on the task's handle.
    virtual Result execute() = 0;
};

/// The enumerator's name ("UNSCHEDULED", "READY", "EXECUTING", "CANCELLED", "DONE"), or "UNKNOWN"
/// for any other value. A static string, never null.
OVRA_API char const* taskStateToName(Executable::State state);

}  // namespace ovra::concurrent
