#pragma once

#include <sched.h>

namespace ovra::bench {

/// Keeps the calling thread, and the threads it starts, on one core while it lives.
class PinnedToOneCore {
public:
    explicit PinnedToOneCore(bool isWanted) : isPinned(isWanted) {
        if (!isPinned) {
            return;
        }
        sched_getaffinity(0, sizeof before, &before);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned int>(sched_getcpu()), &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    PinnedToOneCore(PinnedToOneCore const&) = delete;
    PinnedToOneCore& operator=(PinnedToOneCore const&) = delete;
    ~PinnedToOneCore() {
        if (isPinned) {
            sched_setaffinity(0, sizeof before, &before);
        }
    }

private:
    bool const isPinned;
    cpu_set_t before;
};

}  // namespace ovra::bench
