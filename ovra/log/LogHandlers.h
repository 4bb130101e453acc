#pragma once

#include <memory>
#include <mutex>
#include <ostream>

#include <ovra/Export.h>
#include <ovra/fs/FileHandle.h>
#include <ovra/log/Log.h>

namespace ovra::log {

/// Writes `line` to the system log while it holds `mutex`: the one place where the library does so.
///
/// The system log interprets the line as a format, unless `logVerbatim` is delivering on this
/// thread; see `log`. So never pass a line with text that the application did not write. The
/// identity, options and facility are the application's: the library never opens or closes the
/// system log.
///
///     CRITICAL -> LOG_CRIT   ERROR -> LOG_ERR   DEBUG -> LOG_DEBUG
///     WARNING, INFO, VERBOSE and anything else -> LOG_INFO
///
/// `WARNING` thus goes at the informational priority, and `VERBOSE` at a higher one than `DEBUG`.
OVRA_API void handleLogMessageEInkOrLinux(char const* line, LogLevel level, std::mutex& mutex);

/// The sink to the system log. One instance always exists and is called first.
///
/// *Threads*: Thread-safe; holds its mutex while it writes.
class OVRA_API PlatformLogHandler : public LogHandler {
public:
    void handleLogMessage(char const* line, LogLevel level) override;

private:
    std::mutex mutex;
};

/// The sink to the process's standard streams: `CRITICAL` and `ERROR` to standard error, every
/// other level to standard output. Each line is flushed.
///
/// *Threads*: Thread-safe; holds its one mutex while it writes to either stream.
///
/// *Failure*: a write that fails sets the stream's bad state, which silences `std::cout` or
/// `std::cerr` **for the whole application** until the application clears it; the sink never does.
/// A write fails on a full device, when a signal handler without `SA_RESTART` interrupts it on a
/// full pipe or terminal, and when the thread is cancelled meanwhile. A null line has the same
/// effect. A stream on a pipe whose reader has closed it raises `SIGPIPE`, which ends the process
/// unless it is ignored.
class OVRA_API StandardStreamLogHandler : public LogHandler {
public:
    void handleLogMessage(char const* line, LogLevel level) override;

private:
    std::mutex mutex;
};

/// The sink to a file, whatever the level. Each line is flushed.
///
/// *Threads*: Thread-safe; holds its mutex while it writes.
///
/// *Failure*: if the file cannot be opened, the sink discards every line in silence. The same
/// follows if a signal handler without `SA_RESTART` interrupts the opening, as on a named pipe.
/// After a null line, a write that fails or a thread that is cancelled while it writes, the sink
/// discards every later line. On a pipe whose reader has closed it, a line raises `SIGPIPE`, which
/// ends the process unless it is ignored.
///
/// Programs that the application executes inherit the descriptor.
class OVRA_API FileLogHandler : public LogHandler {
public:
    /// Opens the file at `path`, or "ovra.log" inside it if that is a directory.
    ///
    /// The log of an earlier run, or of an earlier sink on the same path, is truncated. A file that
    /// does not exist is created; its directory must exist. Blocks on a named pipe that nobody
    /// reads. A null `path` throws `std::logic_error`.
    explicit FileLogHandler(char const* path);
    ~FileLogHandler() override;

    void handleLogMessage(char const* line, LogLevel level) override;

private:
    fs::FileHandle logFile;
    std::unique_ptr<std::ostream> stream;
    std::mutex mutex;
};

}  // namespace ovra::log
