#pragma once

#include <ovra/extra/MonitoredExecutor.h>
#include <ovra/extra/TaskGroup.h>

#include "Scenarios.h"
#include "StoppableWork.h"

// The classes of the second library that stand on an executor. One thread does what a worker does.

namespace scenarios {

using ovra::extra::MonitoredExecutor;
using ovra::extra::TaskCounts;
using ovra::extra::TaskGroup;

struct Served {
    // Waits for a task, which must come, and runs it.
    void serve() {
        while (queue->isEmpty()) {
            model::yield();
        }
        serveIfThere();
    }
    void serveIfThere() {
        Submission const task = queue->getNextTask();
        if (task && !task->isCancelled()) {
            task->execute();
            task->performCallback();
        }
    }

    Effect effect;
    model::shared_ptr<SubmittedTasksQueue> queue = model::make_shared<SubmittedTasksQueue>(nullptr);
    model::shared_ptr<TaskExecutorImpl> executor = model::make_shared<TaskExecutorImpl>(0, queue);
};

/// Work that looks for the flag until it is raised, and a cancel.
struct StopOfRunning : Served {
    void run(unsigned int thread) {
        if (thread == 0) {
            serveIfThere();
        } else {
            before = 1;
            work.cancel();
            int const value = work.value();
            expect(value == (hasRun == 1 ? 7 : 0), "the value, or a broken promise");
        }
    }
    void check() {}

    int look(StoppableWork::IsRaised const& isRaised) {
        hasRun = 1;
        while (!isRaised()) {
            model::yield();
        }
        expect(before == 1, "the flag comes after what was before it");
        hasRun = 1;  // Had the work been given up meanwhile, it would not exist.
        return 7;
    }

    model::plain<int> before{0};
    model::plain<int> hasRun{0};
    StoppableWork work{*executor,
                       [this](StoppableWork::IsRaised const& isRaised) { return look(isRaised); }};
};

/// Work that looks at its own handle: who sees the cancel sees the flag.
struct StopBeforeCancel : Served {
    void run(unsigned int thread) {
        if (thread == 0) {
            serveIfThere();
        } else {
            work.cancel();
        }
    }
    void check() {}

    int look(StoppableWork::IsRaised const& isRaised) {
        if (work.isCancelled()) {
            expect(isRaised(), "the flag is raised before the handle is cancelled");
        }
        return 7;
    }

    StoppableWork work{*executor,
                       [this](StoppableWork::IsRaised const& isRaised) { return look(isRaised); }};
};

/// The end of a group's only task, and who waits for it.
struct GroupAgainstWait : Served {
    void run(unsigned int thread) {
        if (thread == 0) {
            serve();
        } else {
            group.wait();
            expect(effect.runs == 2, "the wait ends after the callback");
            expect(group.pending() == 0, "nothing is pending after the wait");
        }
    }
    void check() {}

    TaskGroup group{executor};
    Handle handle = group.submitTask(
        effect.work(), NORMAL, [this](auto const&) { effect.runs = effect.runs + 1; }, "task");
};

/// Two submissions, and room for one.
struct GroupAtItsLimit : Served {
    void run(unsigned int thread) {
        handles[thread] = group.submitTask(effect.work(), NORMAL, nullptr, "task");
    }
    void check() {
        expect((handles[0].get() != nullptr) != (handles[1].get() != nullptr), "one has room");
        expect(group.pending() == 1, "one is pending");
        serve();
        expect(group.pending() == 0, "none is pending");
    }

    TaskGroup group{executor, 1};
    Handle handles[2];
};

/// A submission against the end of that very task, and against a cancel of all.
struct GroupAgainstCancel : Served {
    void run(unsigned int thread) {
        if (thread == 0) {
            group.submitTask(effect.work(), NORMAL, nullptr, "task");
        } else if (thread == 1) {
            serve();
        } else {
            group.cancelAll();
            expect(group.pending() <= 1, "one task is there");
        }
    }
    void check() {
        queue->close();
        expect(group.pending() == 0, "nothing is pending");
    }

    TaskGroup group{executor};
};

/// Takes its time to return from a submission: the task may have ended by then.
struct SlowExecutor : TaskExecutorImpl {
    using TaskExecutorImpl::submitTask;
    using TaskExecutorImpl::TaskExecutorImpl;
    Handle submitTask(model::shared_ptr<Task> const& task, TaskPriority priority,
                      std::function<void(model::shared_ptr<Task>)> const& callback) override {
        Handle handle = TaskExecutorImpl::submitTask(task, priority, callback);
        for (int i = 0; i < 30; ++i) {
            model::yield();
        }
        return handle;
    }
};

/// All counts of one moment, while a task is submitted and runs.
struct CountsOfOneMoment : Served {
    void run(unsigned int thread) {
        if (thread == 0) {
            monitored.submitTask(effect.work(), NORMAL, nullptr, "task");
        } else if (thread == 1) {
            serve();
        } else {
            look();
            look();
        }
    }
    void check() {
        TaskCounts const counts = look();
        expect(counts.submitted == 1 && counts.ended == 1, "the task was counted once");
    }

    TaskCounts look() {
        TaskCounts const counts = monitored.counts();
        expect(counts.submitted == counts.waiting + counts.running + counts.ended + counts.dropped,
               "the counts are of one moment");
        return counts;
    }

    MonitoredExecutor monitored{model::make_shared<SlowExecutor>(0, queue)};
};

}  // namespace scenarios
