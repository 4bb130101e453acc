#include "Options.h"
#include "Watch.h"

namespace manifest {

ExitStatus watch(WatchOptions const&) {
    throw UsageError("watch is left out: this program was built without the library ovra-extra");
}

}  // namespace manifest
