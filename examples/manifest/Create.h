#pragma once

#include "ExitStatus.h"
#include "Interrupt.h"
#include "Options.h"

namespace manifest {

/// Makes a manifest.
ExitStatus create(Options const& options, Interrupt& interrupt);

}  // namespace manifest
