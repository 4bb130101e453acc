// What a task costs through the classes that stand on an executor, beside the same task without
// them; and a value by `submitAsync` beside one by a promise of the caller's own.

#include <future>
#include <memory>
#include <utility>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/extra.h>

#include <benchmarks/concurrent/BurstRuns.h>

namespace ovra::bench {

namespace {

using concurrent::Executable;
using concurrent::TaskExecutorImpl;
using concurrent::TaskPriority;

std::shared_ptr<TaskExecutorImpl> makeExecutor(int workers) {
    return std::make_shared<TaskExecutorImpl>(
        static_cast<unsigned int>(workers),
        std::make_shared<concurrent::SubmittedTasksQueue>(
            std::make_shared<concurrent::NoStarveTaskRankingStrategy>()));
}

constexpr TaskPriority priorityOf(JobPriority priority) {
    return priority == JobPriority::HIGH     ? concurrent::HIGH
           : priority == JobPriority::NORMAL ? concurrent::NORMAL
                                             : concurrent::LOW;
}

// `Around` submits to an executor.
template <typename Around>
class PoolAround {
public:
    using Ticket = std::shared_ptr<concurrent::TaskHandle>;

    explicit PoolAround(int workers) : around(makeExecutor(workers)) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        return around.submitTask(
            [work] {
                work();
                return Executable::SUCCESS;
            },
            priorityOf(priority), {}, name);
    }
    static void wait(Ticket& ticket) { ticket->waitForCompletion(); }

private:
    Around around;
};

class AsyncPool {
public:
    using Ticket = extra::Async<int>;

    explicit AsyncPool(int workers) : executor(makeExecutor(workers)) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        return extra::submitAsync(
            *executor,
            [work] {
                work();
                return 7;
            },
            priorityOf(priority), name);
    }
    static void wait(Ticket& ticket) { ticket.future.get(); }

private:
    std::shared_ptr<TaskExecutorImpl> const executor;
};

// The promise has to be shared, as an executor copies functions.
class PromisePool {
public:
    struct Ticket {
        std::shared_ptr<concurrent::TaskHandle> handle;
        std::future<int> future;
    };

    explicit PromisePool(int workers) : executor(makeExecutor(workers)) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        auto const promise = std::make_shared<std::promise<int>>();
        auto future = promise->get_future();
        auto handle = executor->submitTask(
            [work, promise] {
                work();
                promise->set_value(7);
                return Executable::SUCCESS;
            },
            priorityOf(priority), {}, name);
        return {std::move(handle), std::move(future)};
    }
    static void wait(Ticket& ticket) { ticket.future.get(); }

private:
    std::shared_ptr<TaskExecutorImpl> const executor;
};

[[maybe_unused]] bool const isAdded =
    BurstRuns<PoolAround<extra::TaskGroup>>::add("ovra-extra TaskGroup") &&
    BurstRuns<PoolAround<extra::MonitoredExecutor>>::add("ovra-extra MonitoredExecutor") &&
    BurstRuns<AsyncPool>::add("ovra-extra submitAsync") &&
    BurstRuns<PromisePool>::add("ovra with a promise");

}  // namespace

}  // namespace ovra::bench
