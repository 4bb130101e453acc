#pragma once

#include <vector>

#include <tests/faults/Sweep.h>

namespace ovra::faults {

std::vector<Operation> extraFileOperations();

}  // namespace ovra::faults
