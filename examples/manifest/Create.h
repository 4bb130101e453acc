#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "HashTask.h"
#include "Hasher.h"
#include "Interrupt.h"
#include "Options.h"

namespace manifest {

/// Makes a manifest.
ExitStatus create(Options const& options, Interrupt& interrupt);

/// Submits all tasks, then puts those at or below the path `first`, which may be empty, ahead of
/// the rest. Stops early when the hasher is cancelled. Returns how many were raised.
std::size_t submitAll(Hasher& hasher, std::vector<std::shared_ptr<HashTask>> const& tasks,
                      std::string const& first);

}  // namespace manifest
