#include <ovra/concurrent/Task.h>

namespace ovra::concurrent {

Task::~Task() = default;

char const* Task::name() const {
    return "Unnamed";
}

}  // namespace ovra::concurrent
