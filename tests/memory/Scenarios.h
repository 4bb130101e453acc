#pragma once

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/InitialRank.h>
#include <ovra/concurrent/internal/RankedTasks.h>

#include "Model.h"

// Each scenario: what some threads do at the same time, and what must hold whichever order their
// steps come in, and whatever they read of what others have written.

namespace scenarios {

using namespace ovra::concurrent;
using model::expect;
using Submission = model::shared_ptr<SubmittedTask>;
using Handle = model::shared_ptr<TaskHandle>;

/// Work that leaves a trace, to be read by who has learnt of its end.
struct Effect {
    std::function<Executable::Result()> work(bool throws = false) {
        return [this, throws] {
            runs = runs + 1;
            if (throws) {
                throw std::runtime_error("thrown by work");
            }
            return Executable::SUCCESS;
        };
    }
    Submission task(TaskPriority priority = NORMAL, bool throws = false) {
        return model::make_shared<SubmittedTask>(work(throws), priority, nullptr, "task");
    }

    model::plain<int> runs{0};
};

/// Work that ends while a reader of the handle looks for its state, or for its result.
struct PushState {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
            return;
        }
        while (handle->getState() != Executable::DONE) {
            model::yield();
        }
        expect(handle->getResult() == Executable::SUCCESS, "DONE comes with its result");
        expect(effect.runs == 1, "DONE comes after the work");
    }
    void check() {}

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

struct PushResult {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
            return;
        }
        while (handle->getResult() != Executable::SUCCESS) {
            model::yield();
        }
        expect(effect.runs == 1, "the result comes after the work");
    }
    void check() { expect(handle->isDone(), "the task is done"); }

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

struct PushException {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
            return;
        }
        while (handle->getState() != Executable::DONE) {
            model::yield();
        }
        expect(handle->getResult() == Executable::FAILURE, "DONE comes with its result");
        expect(handle->getException() != nullptr, "DONE comes with the exception");
    }
    void check() { expect(handle->getException() != nullptr, "the exception is kept"); }

    Effect effect;
    Submission task = effect.task(NORMAL, true);
    Handle handle = TaskHandle::of(task, nullptr);
};

struct Wait {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
        } else {
            handle->waitForCompletion();
            expect(handle->getState() == Executable::DONE, "the wait ends with the task");
            expect(handle->getResult() == Executable::SUCCESS, "the wait ends with the result");
            expect(effect.runs == 1, "the wait ends after the work");
        }
    }
    void check() {}

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

/// The worker's part of a task, which may have ended when the wait begins.
struct WaitForEnded {
    void run(unsigned int thread) {
        if (thread == 0) {
            Submission const last(std::move(task));
            last->execute();
        } else {
            wait();
            expect(effect.runs == 1, "the wait ends after the work");
        }
    }
    void check() {}
    virtual void wait() { handle->waitForCompletion(); }
    virtual ~WaitForEnded() = default;

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

struct WaitForEndedByProxy : WaitForEnded {
    void wait() override { proxy->waitForCompletion(); }

    model::shared_ptr<SubmittedTaskProxy> proxy = SubmittedTask::provideProxy(task);
};

/// A cancel against the start and the end.
struct Cancel {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
        } else {
            handle->cancel();
        }
    }
    void check() {
        Executable::State const state = task->getState();
        Executable::Result const result = task->getResult();
        expect(state == handle->getState(), "the handle shows the task's state");
        expect(result == handle->getResult(), "the handle shows the task's result");
        expect(state == Executable::DONE || state == Executable::CANCELLED, "the task has ended");
        expect(result == Executable::SUCCESS || result == Executable::ABORTED,
               "the task has a result");
        expect(state != Executable::DONE || result == Executable::SUCCESS, "DONE says SUCCESS");
    }

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

/// Work that would repeat for ever, but for the cancel.
struct CancelOfRepeat {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->execute();
        } else {
            while (handle->getState() != Executable::EXECUTING) {
                model::yield();
            }
            handle->cancel();
        }
    }
    void check() {
        expect(task->getState() == Executable::CANCELLED, "the task is cancelled");
        expect(handle->getResult() == Executable::ABORTED, "the handle says so");
    }

    Submission task = model::make_shared<SubmittedTask>(
        [] {
            model::yield();
            return Executable::REPEAT;
        },
        NORMAL, nullptr, "task");
    Handle handle = TaskHandle::of(task, nullptr);
};

/// Two results at the same time: the handle shows the task's own.
struct PushTwice {
    void run(unsigned int thread) {
        task->setResult(thread == 0 ? Executable::SUCCESS : Executable::FAILURE);
    }
    void check() {
        expect(handle->getResult() == task->getResult(), "the handle shows the task's result");
    }

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(task, nullptr);
};

/// A handle that is linked while the state changes.
struct HandleAgainstState {
    void run(unsigned int thread) {
        if (thread == 0) {
            task->setHandle(handle);
        } else {
            task->setState(Executable::EXECUTING);
            expect(task->getState() == Executable::EXECUTING, "the state is kept");
            static_cast<void>(task->getHandle());
        }
    }
    void check() {
        expect(handle->getState() == Executable::EXECUTING, "the handle shows the task's state");
    }

    Effect effect;
    Submission task = effect.task();
    Handle handle = TaskHandle::of(effect.task(), nullptr);
};

/// Two tasks of a queue that doubles ranks; one of them is given a new priority.
struct Ranks {
    unsigned int high() const { return initialRankOf(HIGH); }
    void finish() {
        while (queue->getNextTask()) {
        }
        queue->close();
    }

    Effect effect;
    Submission first = effect.task(NORMAL);
    Submission second = effect.task(LOW);
    model::shared_ptr<SubmittedTasksQueue> queue =
        model::make_shared<SubmittedTasksQueue>(model::make_shared<NoStarveTaskRankingStrategy>());
};

struct RankAgainstInsert : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue->addTask(second);
        } else if (thread == 1) {
            second->setPriority(HIGH);
        } else {
            unsigned int const rank = second->getRank();
            expect(rank == 1 || rank == high(), "a rank is the old one or the new one");
        }
    }
    void check() {
        expect(second->getRank() == high(), "the new rank is not lost");
        expect(queue->getNextTask() == second, "the more urgent task comes first");
        expect(queue->getNextTask() == first, "the other task comes after it");
        expect(second->getRank() == 2 * high(), "the pick doubled the new rank");
        finish();
    }

    Handle handle = queue->addTask(first);
};

/// The first steps of `setPriority()`, which then stores the priority and, later, the rank. A queue
/// that computes ranks must not meanwhile take the task for one whose rank fits its priority.
struct PriorityAgainstInsert : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue->addTask(second);
        } else {
            ++second->rankedEntry().priorityChanges;
            isAheadOfMark = !second->rankedEntry().isComputed();
        }
    }
    void check() {
        expect(!isAheadOfMark || !second->rankedEntry().isComputed(),
               "the mark is ahead of the change, or the change is seen");
        finish();
    }

    bool isAheadOfMark = false;
};

struct RankAgainstPick : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            picked = queue->getNextTask();
        } else if (thread == 1) {
            second->setPriority(HIGH);
        } else {
            unsigned int const rank = second->getRank();
            expect(rank == 1 || rank == 2 || rank == high() || rank == 2 * high(),
                   "a rank is the old one or the new one, doubled or not");
        }
    }
    void check() {
        unsigned int const rank = second->getRank();
        if (picked == second) {
            expect(rank == 2 * high(), "it was picked for its new rank, which was doubled");
        } else {
            expect(picked == first, "one of the two was picked");
            expect(rank == high(), "a rank given after the pick is not doubled");
            expect(queue->getNextTask() == second, "the other task is still there");
        }
        finish();
    }

    Handle firstHandle = queue->addTask(first);
    Handle secondHandle = queue->addTask(second);
    Submission picked;
};

/// The same while the pick scans: an older task could have rules of its own.
struct RankAgainstScan : Ranks {
    struct Derived : SubmittedTask {
        using SubmittedTask::SubmittedTask;
    };

    void run(unsigned int thread) {
        if (thread == 0) {
            picked = queue->getNextTask();
        } else {
            second->setPriority(HIGH);
        }
    }
    void check() {
        expect(picked == first || picked == second, "a more urgent task was picked");
        unsigned int const rank = second->getRank();
        expect(rank == high() || rank == 2 * high(), "the new rank is not lost");
        int left = 0;
        while (queue->getNextTask()) {
            ++left;
        }
        expect(left == 2, "the other two are still there");
        queue->close();
    }

    Handle scannedHandle =
        queue->addTask(model::make_shared<Derived>(effect.work(), LOW, nullptr, "scanned"));
    Handle firstHandle = queue->addTask(first);
    Handle secondHandle = queue->addTask(second);
    Submission picked;
};

/// The new rank of the very task that is picked.
struct RankOfThePicked : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            expect(queue->getNextTask() == first, "the only task is picked");
        } else if (thread == 1) {
            first->setPriority(HIGH);
        } else {
            unsigned int const rank = first->getRank();
            expect(rank == 1000 || rank == 2000 || rank == high() || rank == 2 * high(),
                   "a rank is the old one or the new one, doubled or not");
        }
    }
    void check() {
        unsigned int const rank = first->getRank();
        expect(rank == high() || rank == 2 * high(), "the new rank is not lost");
        expect(!queue->getNextTask(), "nothing else is there");
        expect(first->getRank() == rank, "no later pick changes the rank of what was taken");
        finish();
    }

    Handle firstHandle = queue->addTask(first);
};

struct RankAgainstClose : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue->close();
        } else if (thread == 1) {
            second->setPriority(HIGH);
        } else {
            unsigned int const rank = second->getRank();
            expect(rank == 1 || rank == high(), "a rank is the old one or the new one");
        }
    }
    void check() { expect(second->getRank() == high(), "the new rank is not lost"); }

    Handle firstHandle = queue->addTask(first);
    Handle secondHandle = queue->addTask(second);
};

/// The task's last owner but its queue changes the rank, while the queue goes.
struct RankAgainstDestruction : Ranks {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue.reset();
        } else {
            Submission const last(std::move(second));
            last->setPriority(HIGH);
            expect(last->getRank() == high(), "the new rank is not lost");
        }
    }
    void check() {}

    Handle secondHandle = queue->addTask(second);
};

/// One object in two queues: one of them ranks it.
struct AddToTwoQueues : Ranks {
    void run(unsigned int thread) { (thread == 0 ? queue : other)->addTask(second); }
    void check() {
        expect(queue->getNextTask() == second, "one queue has the task");
        expect(other->getNextTask() == second, "the other queue has it too");
        other->close();
        finish();
    }

    model::shared_ptr<SubmittedTasksQueue> other =
        model::make_shared<SubmittedTasksQueue>(model::make_shared<NoStarveTaskRankingStrategy>());
};

/// A worker that may be about to sleep when a task is added, and when the queue is closed.
struct AddAgainstWait {
    void run(unsigned int thread) {
        if (thread == 0) {
            worker->run();
        } else {
            Handle const handle = queue->addTask(effect.task());
            static_cast<void>(queue->isEmpty());
            handle->waitForCompletion();
            expect(effect.runs == 1, "the work has run");
            queue->close();
        }
    }
    void check() {}

    Effect effect;
    model::shared_ptr<SubmittedTasksQueue> queue = model::make_shared<SubmittedTasksQueue>(nullptr);
    std::unique_ptr<TaskExecutorWorker> worker = std::make_unique<TaskExecutorWorker>(queue);
};

/// Two workers, both of which a close must wake.
struct CloseAgainstWait {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue->close();
        } else {
            workers[thread - 1]->run();
        }
    }
    void check() {}

    model::shared_ptr<SubmittedTasksQueue> queue = model::make_shared<SubmittedTasksQueue>(nullptr);
    std::unique_ptr<TaskExecutorWorker> workers[2] = {std::make_unique<TaskExecutorWorker>(queue),
                                                      std::make_unique<TaskExecutorWorker>(queue)};
};

/// A submission while another owner of the queue goes, with its worker.
struct SubmitAgainstDestruction {
    void run(unsigned int thread) {
        if (thread == 0) {
            executor.reset();
        } else {
            handle = submitter->submitTask(effect.work(), NORMAL, nullptr, "task");
        }
    }
    void check() {
        expect(effect.runs == 0 || effect.runs == 1, "the work runs once at most");
        expect(effect.runs == 0 || handle->getState() == Executable::DONE, "the handle shows it");
        expect(!submitter->submitTask(effect.work(), NORMAL, nullptr, "late"),
               "the queue is closed");
    }

    Effect effect;
    model::shared_ptr<SubmittedTasksQueue> queue = model::make_shared<SubmittedTasksQueue>(nullptr);
    std::unique_ptr<TaskExecutorImpl> submitter = std::make_unique<TaskExecutorImpl>(0, queue);
    std::unique_ptr<TaskExecutorImpl> executor = std::make_unique<TaskExecutorImpl>(1, queue);
    Handle handle;
};

/// The parts of a submission share one piece of memory: the last of them frees it.
struct ReleaseParts {
    void run(unsigned int thread) {
        if (thread == 0) {
            queue->close();
        } else {
            handle.reset();
        }
    }
    void check() {}

    Effect effect;
    model::shared_ptr<SubmittedTasksQueue> queue = model::make_shared<SubmittedTasksQueue>(nullptr);
    std::unique_ptr<TaskExecutorImpl> executor = std::make_unique<TaskExecutorImpl>(0, queue);
    Handle handle = executor->submitTask(effect.work(), NORMAL, nullptr, "task");
};

}  // namespace scenarios
