#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

#include <benchmarks/support/Clock.h>
#include <benchmarks/support/Run.h>

namespace ovra::bench {

namespace {

using concurrent::Executable;
using concurrent::SubmittedTask;
using concurrent::SubmittedTasksQueue;
using concurrent::TaskHandle;
using concurrent::TaskPriority;

// What the queue and its tasks cost, without threads: one thread submits to an executor that has no
// worker, picks and executes as a worker does, and releases the handles.
template <typename Strategy>
class QueueRuns {
public:
    static bool add(std::string const& strategy) {
        return Run::add("queue", strategy, all) && Run::add("queue-change-once", strategy, once) &&
               Run::add("queue-change-between", strategy, between) &&
               Run::add("queue-pick", strategy, pick);
    }

private:
    static constexpr TaskPriority PRIORITIES[] = {concurrent::LOW, concurrent::NORMAL,
                                                  concurrent::HIGH};

    void submit(std::size_t count) {
        hasRun.resize(count);
        handles.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            std::function<Executable::Result()> const work = [this, i] {
                hasRun[i] = 1;
                return Executable::SUCCESS;
            };
            handles.push_back(executor.submitTask(work, PRIORITIES[i % 3], nullptr, "task"));
        }
    }

    // False when nothing is queued.
    bool runNext() {
        std::shared_ptr<SubmittedTask> const task = queue->getNextTask();
        if (!task) {
            return false;
        }
        if (!task->isCancelled()) {
            task->execute();
            task->performCallback();
        }
        return true;
    }

    void runAll(Run& run) {
        while (runNext()) {
        }
        if (std::count(hasRun.begin(), hasRun.end(), 1) != std::ptrdiff_t(hasRun.size())) {
            run.fail("Not every task ran.");
        }
        handles.clear();
    }

    // The tasks that are re-prioritised, in random order.
    std::vector<std::size_t> shuffled() const {
        std::vector<std::size_t> order(handles.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            order[i] = i;
        }
        std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
        return order;
    }

    // Whatever runs once per process runs before the first counted task.
    void warmUp(Run& run) {
        submit(100);
        runAll(run);
        hasRun.clear();
    }

    static std::size_t size(Run& run, char const* name) {
        return static_cast<std::size_t>(run.number(name, 0));
    }

    static void all(Run& run) {
        QueueRuns runs;
        runs.warmUp(run);
        runs.submit(size(run, "n"));
        runs.runAll(run);
    }

    static void once(Run& run) {
        QueueRuns runs;
        runs.warmUp(run);
        runs.submit(size(run, "n"));
        std::vector<std::size_t> const order = runs.shuffled();
        for (std::size_t i = 0; i < size(run, "changes"); ++i) {
            runs.handles[order[i]]->updatePriority(PRIORITIES[i % 3]);
        }
        runs.runAll(run);
    }

    static void between(Run& run) {
        QueueRuns runs;
        runs.warmUp(run);
        runs.submit(size(run, "n"));
        std::vector<std::size_t> const order = runs.shuffled();
        std::size_t next = 0;
        for (std::size_t i = 0; i < size(run, "changes"); ++i) {
            runs.runNext();
            while (next < order.size() && runs.hasRun[order[next]] != 0) {
                ++next;
            }
            if (next < order.size()) {
                runs.handles[order[next++]]->updatePriority(PRIORITIES[i % 3]);
            }
        }
        runs.runAll(run);
    }

    // Some picks out of many queued tasks, which are then left to the queue's destructor.
    static void pick(Run& run) {
        QueueRuns runs;
        runs.warmUp(run);
        runs.submit(size(run, "n"));
        std::size_t const picks = size(run, "picks");
        std::vector<std::shared_ptr<SubmittedTask>> picked(picks);
        // The first pick may do work that was deferred while tasks were added.
        std::shared_ptr<SubmittedTask> const first = runs.queue->getNextTask();
        Stopwatch watch;
        watch.start();
        for (std::shared_ptr<SubmittedTask>& task : picked) {
            task = runs.queue->getNextTask();
        }
        watch.stop();
        if (picks > 0) {
            run.report("cpu_ns", watch.cpuNanoseconds(static_cast<double>(picks)));
        }
    }

    std::shared_ptr<SubmittedTasksQueue> const queue =
        std::make_shared<SubmittedTasksQueue>(std::make_shared<Strategy>());
    concurrent::TaskExecutorImpl executor{0, queue};
    std::vector<char> hasRun;
    std::vector<std::shared_ptr<TaskHandle>> handles;
};

[[maybe_unused]] bool const isAdded =
    QueueRuns<concurrent::HighestPriorityTaskRankingStrategy>::add("ovra HighestPriority") &&
    QueueRuns<concurrent::NoStarveTaskRankingStrategy>::add("ovra NoStarve");

}  // namespace

}  // namespace ovra::bench
