#pragma once

#include <memory>
#include <string>

#include <ovra/extra/RecentLinesLogHandler.h>

namespace manifest {

/// From now on, a crash of the process writes `lines` to standard error, and to the end of the file
/// at `path` unless that is empty. Then the signal ends the process as it would have. Once in a
/// process.
void leaveLinesOnCrash(std::shared_ptr<ovra::extra::RecentLinesLogHandler> lines,
                       std::string const& path);

}  // namespace manifest
