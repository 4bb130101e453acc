#pragma once

#include <string>

#include "Options.h"

namespace manifest {

/// The file that `--log` leads to; empty without `--log`.
std::string logFile(Options const& options);

/// Registers the sinks that the options ask for and raises the level for them. To be called before
/// any other thread logs. Throws `std::runtime_error` if the log file cannot be written.
void startLogging(Options const& options);

}  // namespace manifest
