#pragma once

#include <cstddef>
#include <memory>

#include <ovra/extra/Export.h>
#include <ovra/log/Log.h>

namespace ovra::extra {

class LineRing;

/// Keeps the last lines in memory of a fixed size, for a crash handler to write out.
///
///     more than `lines` lines        -> the oldest are overwritten
///     a line longer than `bytesEach` -> its first `bytesEach` bytes, without the newline
///     a null line                    -> nothing
///     0 lines                        -> keeps nothing
///
/// *Ownership*: the constructor takes all the memory: for each line, `bytesEach` and about 24 bytes
/// more. Destroy the sink only when nobody logs to it or writes it out. If a signal handler uses
/// it, keep it as long as the process lives.
///
/// *Threads*: Thread-safe. No call takes a lock or waits for another thread. There is a place for
/// each of the `lines` lines, and a new line is dropped in two cases only:
///
///     each place, tried one after the other, is being filled or written out by another thread
///     the thread is held up until `lines` later lines have been kept
///
/// A new line passes over a place that is in use. Until that place comes round again, fewer lines
/// are kept.
///
/// *After fork*: the child has the lines of the parent, except those that other threads were
/// storing at that moment. If another thread was writing out a line, the child never uses the place
/// of that line again. A child of `_Fork` or of the system's bare `clone` does not use the places
/// that were being filled, either.
///
/// *Failure*: the constructor may throw `std::bad_alloc`. `errno` is kept.
///
/// Installs no signal handler. A crash can exhaust a thread's stack: give the handler a stack of
/// its own (`sigaltstack`).
class OVRA_EXTRA_API RecentLinesLogHandler : public log::LogHandler {
public:
    /// Takes all the memory.
    explicit RecentLinesLogHandler(std::size_t lines, std::size_t bytesEach = 160);
    ~RecentLinesLogHandler() override;

    /// Keeps a copy of the line, whatever its level.
    void handleLogMessage(char const* line, log::LogLevel level) override;

    /// Writes the lines, oldest first, each with a newline. Returns whether all could be written,
    /// and stops at the first failure. Blocks as `descriptor` does.
    ///
    /// Async-signal-safe, even in a handler that interrupts `handleLogMessage`. The call leaves out
    /// a line that another call is storing at that moment, a line that is overwritten before its
    /// turn comes, a line that arrives after the call has begun, and a line that 15 other calls are
    /// writing out. No line is a mixture of two.
    ///
    /// A pipe whose reader has closed it raises SIGPIPE, as for any writer.
    bool writeTo(int descriptor) const;

private:
    std::unique_ptr<LineRing> ring;  // Never changes while the sink lives.
};

}  // namespace ovra::extra
