#pragma once

#include <cstddef>
#include <memory>

#include <ovra/extra/Export.h>
#include <ovra/log/Log.h>

namespace ovra::extra {

/// Keeps the last lines in memory of a fixed size, to be written out when the process crashes.
///
///     more than `lines` lines        -> the oldest are overwritten
///     a line longer than `bytesEach` -> its first `bytesEach` bytes, without the newline
///     a null line                    -> nothing
///     0 lines                        -> keeps nothing
///
/// *Ownership*: all memory is taken by the constructor, about `lines` times `bytesEach` and 24
/// bytes more each. Destroy the sink only when nobody logs to it or writes it out; one that a
/// signal handler uses had better live as long as the process.
///
/// *Threads*: Thread-safe, without a lock and without waiting. A thread that was stopped in the
/// middle of a line costs the others the place of that line, and nothing else. If `lines` threads
/// are stopped like that, or as many lines are being written out, new lines are dropped until one
/// goes on. Whoever was stopped until its line would have been overwritten anyway drops it. After
/// `fork` the child has the lines of the parent, but for those that other threads were just
/// keeping; the place of one that another thread was just writing out stays taken in the child.
///
/// *Failure*: the constructor may throw `std::bad_alloc`. `errno` is kept.
///
/// Installs no signal handler. A crash can exhaust a thread's stack: give the handler one of its
/// own
/// (`sigaltstack`).
class OVRA_EXTRA_API RecentLinesLogHandler : public log::LogHandler {
public:
    /// Takes all the memory.
    explicit RecentLinesLogHandler(std::size_t lines, std::size_t bytesEach = 160);
    ~RecentLinesLogHandler() override;

    /// Keeps a copy of the line, whatever its level.
    void handleLogMessage(char const* line, log::LogLevel level) override;

    /// Writes the lines, oldest first, each with a newline. Async-signal-safe, in the middle of
    /// `handleLogMessage` too: the line that was being kept is then left out. So is one that is
    /// overwritten before its turn comes, and one that came after the call. No line is shown mixed.
    /// Whether all could be written; the first failure ends it. Blocks as `descriptor` does.
    bool writeTo(int descriptor) const;

private:
    class Ring;
    std::unique_ptr<Ring> const ring;
};

}  // namespace ovra::extra
