#include "Background.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace manifest {

namespace {

// Of <linux/ioprio.h>, which older systems do not have.
constexpr int IOPRIO_WHO_PROCESS = 1;
constexpr int IOPRIO_IDLE = 3 << 13;

}  // namespace

void giveWay() {
    // On Linux both concern a thread, not the process: 0 is the caller.
    setpriority(PRIO_PROCESS, 0, 19);
    syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_IDLE);
}

}  // namespace manifest
