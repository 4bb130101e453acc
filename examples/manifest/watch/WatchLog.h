#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ovra/extra/RecentLinesLogHandler.h>
#include <ovra/extra/RotatingFileLogHandler.h>

#include "WatchOptions.h"

namespace manifest {

/// The sinks of `ovra-manifest watch`: the log file if there is one, and the last lines, which a
/// crash leaves on standard error and in the file ".crash" beside the log. (The system log gets
/// all lines in any case.) One object in a process, made before any other thread logs.
class WatchLog {
public:
    /// Throws `std::runtime_error` if the log file cannot be written.
    explicit WatchLog(WatchOptions const& options);

    /// Opens the log file by its name again, such as after a rename. Thread-safe.
    void reopen() const;
    /// Writes the last lines. Thread-safe.
    void writeRecentLines(int descriptor) const;

private:
    std::shared_ptr<ovra::extra::RotatingFileLogHandler> file;  // May be empty.
    std::shared_ptr<ovra::extra::RecentLinesLogHandler> recent;
};

/// All files that watch itself writes or reads.
std::vector<std::string> ownFiles(WatchOptions const& options);

}  // namespace manifest
