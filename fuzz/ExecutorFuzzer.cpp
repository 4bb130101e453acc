// Tasks on an executor with one worker: the order they run in, against the model of a queue, and
// what becomes of each of them.

#include <atomic>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <tests/concurrent/QueueModel.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>

#include <fuzz/ByteSource.h>
#include <fuzz/Fuzzer.h>

namespace ovra::concurrent {
namespace {

using fuzz::ByteSource;

// What a task is going to do.
struct Plan {
    enum Way { RETURNS, THROWS_EXCEPTION, THROWS_SOMETHING_ELSE, HAS_NO_WORK, WAYS };

    Way way;
    Executable::Result result;
    int repeats;
    bool cancelsItself;
    bool callbackThrows;
};

// What became of it.
struct Outcome {
    Executable::State state = Executable::UNSCHEDULED;
    Executable::Result result = Executable::NO_RESULT;
    std::string exception;
    int runs = 0;
    int callbacks = 0;

    friend bool operator==(Outcome const& left, Outcome const& right) {
        return left.state == right.state && left.result == right.result &&
               left.exception == right.exception && left.runs == right.runs &&
               left.callbacks == right.callbacks;
    }
    friend std::ostream& operator<<(std::ostream& out, Outcome const& outcome) {
        return out << taskStateToName(outcome.state) << ", result " << outcome.result
                   << ", exception '" << outcome.exception << "', runs " << outcome.runs
                   << ", callbacks " << outcome.callbacks;
    }
};

// Of a task that is not cancelled before it runs.
Outcome outcomeOf(Plan const& plan) {
    Outcome outcome{Executable::DONE, plan.result, "", 1 + plan.repeats, 1};
    if (plan.way == Plan::HAS_NO_WORK) {
        return {Executable::DONE, Executable::FAILURE, std::bad_function_call().what(), 0, 1};
    }
    if (plan.cancelsItself && plan.repeats > 0) {
        return {Executable::CANCELLED, Executable::ABORTED, "", 1, 1};
    }
    if (plan.way != Plan::RETURNS) {
        outcome.result = Executable::FAILURE;
        outcome.exception = plan.way == Plan::THROWS_EXCEPTION ? "thrown" : "Unknown exception";
    }
    if (plan.cancelsItself) {
        outcome.state = Executable::CANCELLED;
        bool const finished =
            outcome.result == Executable::SUCCESS || outcome.result == Executable::FAILURE;
        outcome.result = finished ? outcome.result : Executable::ABORTED;
    }
    return outcome;
}

std::string whatOf(std::exception_ptr const& exception) {
    try {
        if (exception) {
            std::rethrow_exception(exception);
        }
    } catch (std::exception const& caught) {
        return caught.what();
    }
    return "";
}

class Session {
public:
    explicit Session(ByteSource& source)
        : random(source),
          modelQueue{
              source.oneIn(2) ? model::KEEPING : model::DOUBLING, model::Script(0), false, {}},
          queue(modelQueue.strategy == model::KEEPING
                    ? makeQueue<HighestPriorityTaskRankingStrategy>()
                    : makeQueue<NoStarveTaskRankingStrategy>()),
          executor(std::make_unique<TaskExecutorImpl>(1, queue)) {
        occupyWorker();
    }

    void run() {
        while (!random.isEmpty()) {
            switch (random.below(8)) {
                case 0:
                    runTasks();
                    break;
                case 1:
                    cancel();
                    break;
                case 2:
                case 3:
                    changePriority();
                    break;
                default:
                    submit();
            }
            EXPECT_EQ(executor->isIdle(), modelQueue.tasks.empty());
        }
        shutDown();
        compare();
    }

private:
    struct Hold {
        test::Gate entered;
        test::Gate released;
        std::atomic<bool> lastsUntilClosed{false};
    };
    struct Submitted {
        Plan plan;
        std::shared_ptr<TaskHandle> handle;
        Outcome expected;
        int runs = 0;
        int callbacks = 0;
    };

    Submitted& taskOf(int id) { return tasks[static_cast<std::size_t>(id)]; }

    // Nothing else runs until the task made here is released.
    void occupyWorker() {
        hold = std::make_shared<Hold>();
        executor->submitTask(
            [hold = hold, queue = queue.get()] {
                hold->entered.open();
                hold->released.wait();
                if (hold->lastsUntilClosed) {
                    test::yieldUntil([queue] { return queue->isClosed(); });
                }
                return Executable::SUCCESS;
            },
            HIGHEST, {}, "occupation");
        hold->entered.wait();
        --nextIndex;
    }

    void submit() {
        int const id = static_cast<int>(tasks.size());
        Submitted& task = tasks.emplace_back();
        task.plan = {static_cast<Plan::Way>(random.below(Plan::WAYS)),
                     static_cast<Executable::Result>(random.between(0, Executable::ABORTED)),
                     random.between(0, 2), random.oneIn(8), random.oneIn(8)};
        auto const priority = model::anyPriority(random);
        task.handle = hand(id, static_cast<TaskPriority>(priority));
        ASSERT_NE(task.handle, nullptr);
        model.make(id, --nextIndex, priority, model::PLAIN, 0);
        model.add(modelQueue, id);
    }

    std::shared_ptr<TaskHandle> hand(int id, TaskPriority priority) {
        Callback const callback = [this, id](std::shared_ptr<Task> const&) { callBack(id); };
        if (taskOf(id).plan.way == Plan::HAS_NO_WORK) {
            return executor->submitTask(Work(), priority, callback, nullptr);
        }
        Work const work = [this, id] { return execute(id); };
        if (random.oneIn(2)) {
            return executor->submitTask(std::make_shared<NamedTask>(work), priority, callback);
        }
        return executor->submitTask(work, priority, callback, "a name of more than 15 characters");
    }

    // On the worker, while this thread waits.
    Executable::Result execute(int id) {
        Submitted& task = taskOf(id);
        if (task.runs == 0) {
            ran.push_back(id);
        }
        if (task.plan.cancelsItself) {
            task.handle->cancel();
        }
        if (task.runs++ < task.plan.repeats) {
            return Executable::REPEAT;
        }
        switch (task.plan.way) {
            case Plan::THROWS_EXCEPTION:
                throw std::runtime_error("thrown");
            case Plan::THROWS_SOMETHING_ELSE:
                throw id;
            default:
                return task.plan.result;
        }
    }
    void callBack(int id) {
        Submitted& task = taskOf(id);
        ++task.callbacks;
        if (task.plan.callbackThrows) {
            throw std::runtime_error("thrown by a callback");
        }
    }

    void cancel() {
        if (!tasks.empty()) {
            Submitted& task = random.pick(tasks);
            task.handle->cancel();
            if (task.expected.state == Executable::UNSCHEDULED) {
                task.expected.state = Executable::CANCELLED;
            }
        }
    }
    void changePriority() {
        if (!modelQueue.tasks.empty()) {
            int const id =
                *std::next(modelQueue.tasks.begin(),
                           random.below(static_cast<std::uint32_t>(modelQueue.tasks.size())));
            auto const priority = model::anyPriority(random);
            taskOf(id).handle->updatePriority(static_cast<TaskPriority>(priority));
            model.setPriority(id, priority);
        }
    }

    void runTasks() {
        auto const queued = modelQueue.tasks;
        while (!modelQueue.tasks.empty()) {
            int const id = model.pick(modelQueue);
            Submitted& task = taskOf(id);
            if (task.expected.state == Executable::CANCELLED) {
                task.expected.result = Executable::ABORTED;
            } else {
                task.expected = outcomeOf(task.plan);
                if (task.expected.runs > 0) {
                    expectedOrder.push_back(id);
                }
            }
        }
        hold->released.open();
        for (int const id : queued) {
            taskOf(id).handle->waitForCompletion();
        }
        occupyWorker();  // From then on the last callback has returned, too.
        compare();
    }

    // What is queued is dropped.
    void shutDown() {
        if (random.oneIn(2)) {
            queue->close();
            EXPECT_EQ(executor->submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
        }
        hold->lastsUntilClosed = true;
        hold->released.open();
        executor.reset();
    }

    void compare() const {
        EXPECT_EQ(ran, expectedOrder);
        for (Submitted const& task : tasks) {
            Outcome const seen = {task.handle->getState(), task.handle->getResult(),
                                  whatOf(task.handle->getException()), task.runs, task.callbacks};
            EXPECT_EQ(seen, task.expected) << "task " << &task - &tasks[0];
        }
    }

    ByteSource& random;
    model::Model model;
    model::Model::Queue modelQueue;
    std::int32_t nextIndex = 0x7fffffff;
    std::vector<Submitted> tasks;
    std::vector<int> ran;
    std::vector<int> expectedOrder;
    std::shared_ptr<Hold> hold;
    std::shared_ptr<SubmittedTasksQueue> const queue;
    std::unique_ptr<TaskExecutorImpl> executor;
};

}  // namespace
}  // namespace ovra::concurrent

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    ovra::fuzz::ByteSource source(data, size);
    ovra::concurrent::Session(source).run();
    return 0;
}
