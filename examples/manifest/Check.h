#pragma once

#include "ExitStatus.h"
#include "Interrupt.h"
#include "Options.h"

namespace manifest {

/// Verifies the files that a manifest lists, and says of each whether it is as it was. Prints what
/// `sha256sum -c` prints.
ExitStatus check(Options const& options, Interrupt& interrupt);

}  // namespace manifest
