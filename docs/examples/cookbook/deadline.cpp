// Stops within a deadline: asks the work to end, waits, and leaves without it if need be.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <thread>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

using namespace ovra::concurrent;

namespace {

// Releases the last reference to an executor, whose destructor waits for the running work. True if
// that took no longer than the limit. Otherwise the work still runs: leave by std::_Exit().
bool endsWithin(std::chrono::milliseconds limit, std::shared_ptr<TaskExecutor> executor) {
    std::packaged_task<void()> end([last = std::move(executor)]() mutable { last.reset(); });
    std::future<void> const ended = end.get_future();
    std::thread(std::move(end)).detach();
    return ended.wait_for(limit) == std::future_status::ready;
}

}  // namespace

int main() {
    auto executor = std::make_shared<TaskExecutorImpl>(
        1, std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>()));

    // Work in portions: after each, the worker looks whether the task was cancelled.
    auto const handle =
        executor->submitTask([] { return Executable::REPEAT; }, NORMAL, nullptr, "in portions");
    handle->cancel();

    if (!endsWithin(std::chrono::seconds(60), std::move(executor))) {
        std::cout << "out of time\n" << std::flush;
        std::_Exit(1);
    }
    std::cout << "ended in time\n";
}
