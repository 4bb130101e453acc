#pragma once

#include <vector>

#include "../faults/Sweep.h"

namespace ovra::faults {

std::vector<Operation> extraFileOperations();

}  // namespace ovra::faults
