#include <ovra/concurrent/Executable.h>

namespace ovra::concurrent {

Executable::~Executable() = default;

char const* taskStateToName(Executable::State state) {
    switch (state) {
        case Executable::UNSCHEDULED:
            return "UNSCHEDULED";
        case Executable::READY:
            return "READY";
        case Executable::EXECUTING:
            return "EXECUTING";
        case Executable::CANCELLED:
            return "CANCELLED";
        case Executable::DONE:
            return "DONE";
    }
    return "UNKNOWN";
}

}  // namespace ovra::concurrent
