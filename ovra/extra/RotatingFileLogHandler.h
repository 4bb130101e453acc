#pragma once

#include <cstdint>
#include <memory>

#include <ovra/extra/Export.h>
#include <ovra/fs/FilePath.h>
#include <ovra/log/Log.h>

namespace ovra::extra {

class RotatingFile;

/// What a `RotatingFileLogHandler` does in addition to writing lines to a file.
struct RotatingFileOptions {
    /// The most bytes in the file before it is moved away; 0: no cap.
    std::uint64_t maxBytes = 0;
    /// How many moved files are kept: "x.1" is the youngest. 0: the full file is removed.
    unsigned int generations = 1;
    /// Whether each line begins with the time, as "2026-11-21T16:32:37.236Z " (UTC).
    bool stampTimes = true;
    /// A call that logs a line of this level, or of a more severe one, returns once the line is on
    /// the disk. `DISABLED`: no call waits. If such a sync fails, the next `sync()` returns false.
    log::LogLevel syncLevel = log::DISABLED;
};

/// A log file for a device in the field. The sink never empties the file, and keeps it to a size if
/// asked to. It survives a full disk and logs how many lines it lost. It follows a rename on
/// request.
///
/// Lines are appended (`O_APPEND`), each with one `write`, so that threads, processes and programs
/// that share the file never mix lines. Nothing is allocated for a line.
///
/// *The file*: if it does not exist, the sink makes it, with mode 0640 less the umask; its
/// directory must exist. If the path names a directory when the sink is made, the file is
/// "ovra.log" inside it. If the path then names a link, the file is the link's target, which need
/// not exist yet. Anything but a regular file, a directory that is made later included, and a path
/// with a NUL byte, is refused without blocking, and the lines count as lost. Each opening resolves
/// a relative path against the current directory of that moment.
///
/// *Torn lines*: a full disk, or a loss of power, can tear a line. If the system writes a part of a
/// line and then takes the rest, a line of another process can stand between them. The sink begins
/// the next line with the missing newline, whether this sink or an earlier run left the torn line.
/// If another process left the torn line, this sink notices it after it has lost a line of its own
/// or, with a cap, when it next reads the size of the file. Until then a line may follow the torn
/// one without a newline. If the process may not read the file, the sink knows only of the lines
/// that it has torn itself.
///
/// *The cap*: before a line that would take the file "x" over `maxBytes`, the sink moves "x.1" to
/// "x.2" and so on, moves "x" to "x.1", and removes the oldest file. What an earlier run left
/// counts towards the size.
///
///     an empty file                       -> not moved: a longer line goes out alone
///     the file cannot be moved            -> goes on in the same file; the others keep their names
///     it was moved, a new one cannot open -> goes on in the moved file
///     generations 0                       -> the file is removed and made again
///     another process has moved it        -> the path is opened again once a line no longer fits
///     somebody has removed it             -> the path is opened again at the next read of its
///                                            size; if that fails, lines go into the removed file
///                                            and do not count as lost
///
/// If more than one older file is kept, the sink uses one name more while it moves the files: "x.3"
/// where two are kept. A file of that name is lost. If the process is killed at that moment, or the
/// oldest file cannot be removed, "x.3" stays until a later move uses that name. Files with higher
/// numbers, which a run with more generations left, stay for ever.
///
/// The sink moves the file under a lock (`flock`) on it. The file cannot be moved while another
/// program holds that lock, nor on a file system without such locks.
///
/// Several processes may share a capped file, if each of them may open what the others make. Each
/// notices what the others write at the next tick of the system's clock (after 10 ms at most), or
/// earlier where space is short. Until then the file may grow over `maxBytes` by what the others
/// write.
///
/// *Ownership*: the destructor closes the file and waits for nothing. The system puts on the disk
/// later what neither `syncLevel` nor `sync` has put there.
///
/// *Threads*: Thread-safe. Lines of one process are written one after the other, under a lock.
/// After `fork` parent and child may both log, also when another thread was logging a line at that
/// moment. (Not in a child of `vfork`, `_Fork` or of the system's bare `clone`, nor in a handler of
/// `pthread_atfork`.) If a thread is cancelled during a call, its line may be missing and does not
/// count as lost.
///
/// *Failure*: a line that cannot be written whole (full disk, no such directory, a bad medium)
/// counts as lost. Before the next line that can be written, the sink reports the loss since the
/// last report: "[ovra:WARNING] N lines lost". A file that cannot be opened is tried again with
/// each line. A limit on the size of files (`RLIMIT_FSIZE`) raises SIGXFSZ, as for any writer:
/// ignore that signal, and the lines count as lost. `errno` is kept. Only the constructor throws,
/// and only `std::bad_alloc`.
class OVRA_EXTRA_API RotatingFileLogHandler : public log::LogHandler {
public:
    /// Opens the file, or makes it. A file that cannot be opened is tried again with each line.
    explicit RotatingFileLogHandler(fs::FilePath const& file,
                                    RotatingFileOptions const& options = {});
    ~RotatingFileLogHandler() override;

    /// Writes the line as it is, newlines inside it included, whatever its level. A null line ->
    /// nothing. Waits for the disk only as `syncLevel` says.
    void handleLogMessage(char const* line, log::LogLevel level) override;

    /// Opens the path again, such as after a rename. False on failure: the open file is then kept.
    bool reopen();
    /// Asks for `reopen()` at the next line, and at each line after that until it has succeeded.
    /// Async-signal-safe, for a handler of SIGHUP.
    void requestReopen();

    /// Returns once every line written by this sink is on the disk, and so is the name of a new
    /// file. Other lines wait meanwhile. If a file with lines of this sink was moved away or left
    /// since the last call, everything on the file system of the open file is synced, which can
    /// take long. A file that was left on another file system is not synced, nor is a new name
    /// under a relative path after the current directory has changed.
    ///
    /// False if no file is open, if the sync fails, or if a sync for `syncLevel` has failed since
    /// the last call. After false, what was written before the call may be lost. A later `true`
    /// stands for later lines only, because the system may report a loss only once. Before Linux
    /// 5.8 the system reports no failure to write files that were moved away.
    bool sync();

    /// Lines that could not be written, since construction.
    std::uint64_t lostLines() const;

private:
    std::unique_ptr<RotatingFile> file;  // Never changes while the sink lives.
};

}  // namespace ovra::extra
