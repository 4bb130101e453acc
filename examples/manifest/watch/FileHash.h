#pragma once

#include <string>

#include <ovra/extra/Outcome.h>

#include "Pace.h"

namespace manifest {

/// What reading one file gave.
struct FileHash {
    ovra::extra::Outcome outcome;
    std::string
        digest;  ///< In hexadecimal; empty unless `outcome` is `DONE` and nothing stopped it.
};

/// Computes the digest of the regular file at `path`, as fast as `pace` allows. Anything but a
/// regular file is `WRONG_KIND`: nothing is read from it, and a named pipe does not block.
FileHash hashFile(std::string const& path, Pace& pace);

}  // namespace manifest
