#pragma once

#include <cstdint>
#include <memory>

#include <ovra/Export.h>

OVRA_NOT_A_MACRO(DISABLED);
OVRA_NOT_A_MACRO(CRITICAL);
OVRA_NOT_A_MACRO(ERROR);
OVRA_NOT_A_MACRO(WARNING);
OVRA_NOT_A_MACRO(INFO);
OVRA_NOT_A_MACRO(DEBUG);
OVRA_NOT_A_MACRO(VERBOSE);
OVRA_NOT_A_MACRO(FILE_HANDLER);
OVRA_NOT_A_MACRO(PLATFORM_HANDLER);
OVRA_NOT_A_MACRO(STANDARD_STREAM_HANDLER);

namespace ovra::log {

/// How severe a message is: a smaller value is more severe. The global level says which messages
/// are delivered: those whose level is at most the global one.
enum LogLevel : std::int32_t {
    DISABLED = 0,  ///< As the global level: delivers no message. As a message's level: see `log`.
    CRITICAL = 1,  ///< The application can hardly go on.
    ERROR = 2,     ///< Something failed. The global level at the start.
    WARNING = 3,   ///< Odd, but survived. The library reports exceptions of tasks at this level.
    INFO = 4,      ///< The ordinary course of things, such as the states of tasks.
    DEBUG = 5,     ///< For finding a fault.
    VERBOSE = 6,   ///< Everything.
};

/// The kinds of sink that `addLogHandler` and `createLogHandler` make.
enum LogHandlerType : std::int32_t {
    FILE_HANDLER = 1,             ///< `FileLogHandler` on the path given as the name.
    PLATFORM_HANDLER = 2,         ///< `PlatformLogHandler`.
    STANDARD_STREAM_HANDLER = 3,  ///< `StandardStreamLogHandler`.
};

/// A sink for log lines.
///
/// *Ownership*: a registered handler is held by the registry until it is replaced or the library is
/// unloaded.
///
/// *Threads*: the thread that logs calls the sink. Several threads may be inside a sink at once, so
/// a sink serialises its own writes. If a sink logs, `log` calls it again, inside the
/// sink's own call. A sink that logs under its own lock deadlocks. A sink must not call
/// `addLogHandler`, and its destructor must not log.
///
/// *Failure*: what a sink throws is discarded, and the sinks not yet called do not get that
/// message. A sink that never returns blocks the thread that logs.
class OVRA_API LogHandler {
public:
    LogHandler() = default;
    LogHandler(LogHandler const&) = delete;
    LogHandler& operator=(LogHandler const&) = delete;
    virtual ~LogHandler();

    /// Receives one finished line, without a trailing newline of its own. `line` is valid during
    /// the call only: copy what must be kept.
    virtual void handleLogMessage(char const* line, LogLevel level) = 0;
};

/// Formats a message and hands the line "[tag:LEVEL] message" to the system log, then to every
/// registered sink in no particular order.
///
/// A message is delivered if the global level is not `DISABLED` and is at least `level`. So a
/// message of level `DISABLED` (or below) is delivered under every global level above `DISABLED`. A
/// message of a level above `VERBOSE` is delivered only if the global level is at least that high.
/// A message that is not delivered costs one load and two comparisons.
///
/// *The system log takes the line as its own format*: it interprets every percent sign that is left
/// in the line after formatting. For one percent sign in the system log, write "%%%%" in `format`;
/// the other sinks get the line as it is, and show "%%". A conversion that is left in the line ends
/// the process, or worse: pass text that the application did not write to `logVerbatim` instead.
///
/// *Threads*: Thread-safe but for `addLogHandler`. Blocks while a sink blocks, and while the system
/// log takes no lines. `log` takes no lock of its own. Each sink, the one to the system log
/// included, locks its mutex while it writes. So do not call `log` in a signal handler or in a
/// child after `fork()`: the call never returns if a sink's mutex was held when the signal arrived
/// or the process forked. Do not call `log` once static destruction has reached the library.
///
/// *Failure*: a message that cannot be formatted, a null `format` included, is dropped in silence.
/// A null `tag` reads "(null)". Leaves `errno` as it was.
OVRA_API void log(LogLevel level, char const* tag, char const* format, ...) OVRA_PRINTF(3, 4);

/// As `log` in every respect, but every sink takes the line as text: no percent sign in it is a
/// conversion for the system log. For text that the application did not write, such as file names
/// and messages of exceptions.
///
///     logVerbatim(WARNING, "load()", "Cannot read '%s'.", name);
///
/// During the call, the system log takes as text whatever the calling thread writes to it: through
/// the sink that is always there, through a registered `PlatformLogHandler` or one derived from it,
/// and through a sink that another sink calls. A call of `log` inside a sink still passes a
/// format. If a sink passes lines to another thread, and that thread writes them to the system log,
/// the system log takes those lines as formats, as with `log`.
OVRA_API void logVerbatim(LogLevel level, char const* tag, char const* format, ...)
    OVRA_PRINTF(3, 4);

/// The enumerator's name, or "UNKNOWN" for any other value. A static string, never null.
OVRA_API char const* logLevelToName(LogLevel level);

/// Sets the global level, unchecked. `ERROR` from the start. Other threads see the change without
/// any order guaranteed.
OVRA_API void setLogLevel(LogLevel level);
/// The global level, as set last.
OVRA_API LogLevel getLogLevel();

/// A flag kept for the library's callers; the library itself does not read it. False from the
/// start.
OVRA_API void setDepsDebuggable(bool debuggable);
/// The flag, as set last.
OVRA_API bool getDepsDebuggable();

/// Makes a sink that the caller owns alone; an empty pointer for an unknown type. `name` is the
/// path for a `FILE_HANDLER` (see `FileLogHandler`); the other types ignore it.
OVRA_API std::shared_ptr<LogHandler> createLogHandler(LogHandlerType type, char const* name);

/// Makes a sink and registers it under `name`: `log` calls it from now on. A sink that was
/// registered under that name is released. A `PLATFORM_HANDLER` is a second sink to the system log,
/// so every line then reaches it twice. An unknown type changes nothing.
///
/// *Threads*: the registry is not locked. Fill it at start-up, before other threads log.
///
/// *Failure*: a null name throws `std::logic_error` and changes nothing. If the sink cannot be made
/// the exception escapes and an existing sink stays.
OVRA_API void addLogHandler(LogHandlerType type, char const* name);

/// The same for a sink of the application's own. An empty `handler` changes nothing.
OVRA_API void addLogHandler(std::shared_ptr<LogHandler> handler, char const* name);

}  // namespace ovra::log
