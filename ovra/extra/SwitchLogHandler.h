#pragma once

#include <memory>

#include <ovra/extra/Export.h>
#include <ovra/log/Log.h>

namespace ovra::extra {

/// A sink that passes lines on to another, which can be replaced, muted and filtered while other
/// threads log. The registry of `ovra::log` allows none of that: register a switch at start-up, and
/// change its target at any time.
///
/// *Ownership*: shares the target. A replaced target is released by the caller of `exchange` or by
/// the last thread that logs to the target, whichever is later. No lock is held at that moment.
///
/// *Threads*: Thread-safe. The target is called with no lock held, by several threads at once: it
/// serialises its own writes, and may call the switch. A line that began before an `exchange` may
/// still reach the old target after it. After `fork` parent and child each have a switch of their
/// own, also when another thread was logging a line at that moment. (Not in a child of `vfork`,
/// `_Fork` or of the system's bare `clone`, nor in a handler of `pthread_atfork`.)
///
/// A switch that passes lines back to itself, directly or through other sinks, calls itself until
/// the stack overflows, which ends the process.
///
/// *Failure*: what the target throws is passed on, to be discarded by `log`. The switch itself
/// throws only `std::bad_alloc`, and only in the constructor. `errno` is kept, as far as the target
/// keeps it.
class OVRA_EXTRA_API SwitchLogHandler : public log::LogHandler {
public:
    /// An empty target mutes. Lines of `level`, or of a more severe one, are passed on; see
    /// `setLevel`.
    explicit SwitchLogHandler(std::shared_ptr<log::LogHandler> target = nullptr,
                              log::LogLevel level = log::VERBOSE);
    ~SwitchLogHandler() override;

    /// Passes the line on as it is, a null line too.
    void handleLogMessage(char const* line, log::LogLevel level) override;

    /// From now on lines go to `target`; an empty one mutes. Returns the old target.
    std::shared_ptr<log::LogHandler> exchange(std::shared_ptr<log::LogHandler> target);

    /// Passes on lines whose level is at most `level`; takes any value. Lines of level `DISABLED`
    /// and below are always passed on. Other threads see the change without any order guaranteed.
    void setLevel(log::LogLevel level);
    /// The level, as set last.
    log::LogLevel getLevel() const;

private:
    class State;
    std::unique_ptr<State> state;  // Never changes while the switch lives.
};

}  // namespace ovra::extra
