#pragma once

#include "ExitStatus.h"
#include "WatchOptions.h"

namespace manifest {

/// Verifies the files of a manifest again and again, until a signal ends it. Throws `UsageError`
/// where the program was built without `ovra-extra`. Called once in a process, on its main thread,
/// before there are others.
ExitStatus watch(WatchOptions const& options);

}  // namespace manifest
