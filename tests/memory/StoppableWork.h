#pragma once

#include <functional>
#include <memory>

#include <ovra/concurrent/TaskExecutor.h>

namespace scenarios {

/// What `submitAsync` made of a function, in a source of its own: a fault in the header is compiled
/// into that source alone.
class StoppableWork {
public:
    using IsRaised = std::function<bool()>;

    StoppableWork(ovra::concurrent::TaskExecutor& executor,
                  std::function<int(IsRaised const&)> const& work);
    ~StoppableWork();

    void cancel();
    bool isCancelled() const;
    /// Waits for the future; 0 if the promise is broken.
    int value();

private:
    struct Parts;
    std::unique_ptr<Parts> parts;
};

}  // namespace scenarios
