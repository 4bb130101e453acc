#pragma once

namespace manifest {

enum ExitStatus : int {
    ALL_WELL = 0,
    TROUBLE = 1,  ///< A file could not be read or written, or differs.
    CALLED_WRONGLY = 2,
    INTERRUPTED = 130,
};

}  // namespace manifest
