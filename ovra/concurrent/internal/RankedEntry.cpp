#include <ovra/concurrent/internal/RankedEntry.h>
#include <ovra/concurrent/internal/RankedTasks.h>

namespace ovra::concurrent {

RankedEntry::~RankedEntry() {
    if (home != nullptr) {
        home->release();
    }
}

}  // namespace ovra::concurrent
