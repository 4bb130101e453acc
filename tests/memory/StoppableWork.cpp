#include "StoppableWork.h"

#include <ovra/extra/SubmitAsync.h>

namespace scenarios {

struct StoppableWork::Parts {
    ovra::extra::Async<int> async;
};

StoppableWork::StoppableWork(ovra::concurrent::TaskExecutor& executor,
                             std::function<int(IsRaised const&)> const& work)
    : parts(new Parts{ovra::extra::submitAsync(executor, [work](ovra::extra::StopFlag const& stop) {
          return work([&stop] { return stop.isRaised(); });
      })}) {}

StoppableWork::~StoppableWork() = default;

void StoppableWork::cancel() {
    parts->async.cancel();
}

bool StoppableWork::isCancelled() const {
    return parts->async.handle->getState() == ovra::concurrent::Executable::CANCELLED;
}

int StoppableWork::value() {
    return parts->async.future.get();
}

}  // namespace scenarios
