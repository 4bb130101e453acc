#include <ovra/concurrent/TaskExecutor.h>

namespace ovra::concurrent {

TaskExecutor::~TaskExecutor() = default;

}  // namespace ovra::concurrent
