#pragma once

namespace manifest {

/// Makes the calling thread give way to everything else: nice 19, and the idle class for the disk.
/// What the system refuses stays as it is.
void giveWay();

}  // namespace manifest
