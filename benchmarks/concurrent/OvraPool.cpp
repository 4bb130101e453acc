#include <memory>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

template <typename Strategy>
class OvraPool {
public:
    using Ticket = std::shared_ptr<concurrent::TaskHandle>;

    explicit OvraPool(int workers)
        : executor(
              static_cast<unsigned int>(workers),
              std::make_shared<concurrent::SubmittedTasksQueue>(std::make_shared<Strategy>())) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        return executor.submitTask(
            [work] {
                work();
                return concurrent::Executable::SUCCESS;
            },
            priorityOf(priority), {}, name);
    }
    static void wait(Ticket& ticket) { ticket->waitForCompletion(); }
    void reprioritise(Ticket& ticket, JobPriority priority) {
        ticket->updatePriority(priorityOf(priority));
    }
    void cancel(Ticket& ticket) { ticket->cancel(); }

private:
    static concurrent::TaskPriority priorityOf(JobPriority priority) {
        switch (priority) {
            case JobPriority::HIGH:
                return concurrent::HIGH;
            case JobPriority::NORMAL:
                return concurrent::NORMAL;
            case JobPriority::LOW:
                break;
        }
        return concurrent::LOW;
    }

    concurrent::TaskExecutorImpl executor;
};

using HighestPriority = OvraPool<concurrent::HighestPriorityTaskRankingStrategy>;
using NoStarve = OvraPool<concurrent::NoStarveTaskRankingStrategy>;

[[maybe_unused]] bool const isAdded = addChangeablePool<HighestPriority>("ovra HighestPriority") &&
                                      addChangeablePool<NoStarve>("ovra NoStarve");

}  // namespace

}  // namespace ovra::bench
