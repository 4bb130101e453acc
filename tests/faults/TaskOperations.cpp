#include <semaphore.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/log/Log.h>

#include "Sweep.h"

namespace ovra::faults {

namespace {

using namespace concurrent;

using Work = std::function<Executable::Result()>;
using Callback = std::function<void(std::shared_ptr<Task>)>;

Executable::Result succeed() {
    return Executable::SUCCESS;
}

class PlainTask : public Task {
public:
    Result execute() override { return SUCCESS; }
};

std::shared_ptr<SubmittedTask> submission(Work const& work = succeed,
                                          TaskPriority priority = NORMAL) {
    return std::make_shared<SubmittedTask>(work, priority, nullptr, "a task");
}

// A submission with a live handle.
struct Followed {
    explicit Followed(Work const& work = succeed) : task(submission(work)) {
        handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
        task->setHandle(handle);
    }

    std::shared_ptr<SubmittedTask> task;
    std::shared_ptr<TaskHandle> handle;
};

// What is logged up to this level is formatted and delivered, as long as it lives.
class Logging {
public:
    explicit Logging(log::LogLevel level = log::VERBOSE) { log::setLogLevel(level); }
    Logging(Logging const&) = delete;
    Logging& operator=(Logging const&) = delete;
    ~Logging() { log::setLogLevel(log::ERROR); }
};

template <typename Use>
std::function<Action()> onTask(Use use, Work const& work = succeed) {
    return [use, work] {
        auto const logging = std::make_shared<Logging>();
        auto const followed = std::make_shared<Followed>(work);
        return Action([logging, followed, use] { return use(*followed); });
    };
}

std::shared_ptr<SubmittedTasksQueue> queueUnder(bool starves) {
    if (starves) {
        return std::make_shared<SubmittedTasksQueue>(
            std::make_shared<HighestPriorityTaskRankingStrategy>());
    }
    return std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>());
}

int drain(SubmittedTasksQueue& queue) {
    int count = 0;
    while (queue.getNextTask()) {
        ++count;
    }
    return count;
}

// Tasks in plenty: an action that is tried again takes a new one.
template <typename Use>
std::function<Action()> onQueue(bool starves, Use use) {
    return [starves, use] {
        auto const queue = queueUnder(starves);
        auto const fresh = std::make_shared<std::vector<std::shared_ptr<SubmittedTask>>>();
        for (int i = 0; i < 4; ++i) {
            fresh->push_back(submission());
        }
        return Action([queue, fresh, use] { return use(*queue, *fresh); });
    };
}

std::string addOne(SubmittedTasksQueue& queue, std::vector<std::shared_ptr<SubmittedTask>>& fresh) {
    std::shared_ptr<SubmittedTask> const task = std::move(fresh.back());
    fresh.pop_back();
    bool const isAccepted = queue.addTask(task) != nullptr;
    disarm();
    return isAccepted ? shown(drain(queue)) : shown("refused");
}

auto rankedAt(unsigned int rank) {
    return [rank](SubmittedTask& task, int) { task.setRank(rank); };
}

// From tasks of one priority that were changed after they had been added.
template <typename Change>
std::function<Action()> picking(bool starves, TaskPriority priority, Change change) {
    return [=] {
        auto const queue = queueUnder(starves);
        auto const tasks = std::make_shared<std::vector<std::shared_ptr<SubmittedTask>>>();
        for (int i = 0; i < 4; ++i) {
            tasks->push_back(submission(succeed, priority));
            queue->addTask(tasks->back());
            change(*tasks->back(), i);
        }
        return Action([queue, tasks] {
            auto const drainAndRefill = [&] {
                disarm();
                int const left = drain(*queue);
                for (auto& task : *tasks) {
                    task = submission();
                    queue->addTask(task);
                }
                return left;
            };
            bool isOldest = false;
            try {
                isOldest = queue->getNextTask() == tasks->front();
            } catch (std::system_error const&) {
                if (drainAndRefill() != 4) {
                    return shown("a task lost or doubled");
                }
                throw;
            }
            // What the pick left is still all there.
            return shown(std::string(isOldest ? "oldest" : "another") + ", then " +
                         std::to_string(drainAndRefill()));
        });
    };
}

template <typename Use>
std::function<Action()> onExecutor(unsigned int workers, Use use) {
    return [workers, use] {
        auto const executor = std::make_shared<TaskExecutorImpl>(workers, queueUnder(true));
        return Action([executor, use] { return use(*executor); });
    };
}

std::string outcomeOf(std::shared_ptr<TaskHandle> const& handle) {
    disarm();
    if (!handle) {
        return "refused";
    }
    handle->waitForCompletion();
    return "result " + std::to_string(handle->getResult());
}

// Closes the queue once the calling thread waits for work, or at its end.
class Closer {
public:
    explicit Closer(std::shared_ptr<SubmittedTasksQueue> queue) {
        sem_init(&waits, 0, 0);
        thread = std::thread([this, queue] {
            sem_wait(&waits);
            queue->close();
        });
        announceWaits(&waits);
    }
    Closer(Closer const&) = delete;
    Closer& operator=(Closer const&) = delete;
    ~Closer() {
        announceWaits(nullptr);
        sem_post(&waits);
        thread.join();
        sem_destroy(&waits);
    }

private:
    sem_t waits;
    std::thread thread;
};

std::vector<Operation> submissionOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    char const* const used = "std::future_error";
    // A sink's lock is not the caller's trouble.
    auto const executing = [](std::vector<int> const& ofSinks, int last) {
        std::vector<Rule> rules;
        for (int ordinal = 1; ordinal <= last; ++ordinal) {
            if (std::find(ofSinks.begin(), ofSinks.end(), ordinal) == ofSinks.end()) {
                rules.push_back(nth(Call::LOCK, ordinal, SYSTEM_ERROR));
            }
        }
        return rules;
    };
    auto const execute = [](Followed& followed) {
        Executable::Result const result = followed.task->execute();
        disarm();
        return shown(std::string("result ") + std::to_string(result) +
                     (followed.handle->getException() ? " with an exception" : ""));
    };
    auto const call = [](Followed& followed) {
        followed.task->performCallback();
        return shown("called");
    };
    auto const calling = [call](Callback const& callback) {
        return [call, callback] {
            auto const logging = std::make_shared<Logging>();
            auto const followed = std::make_shared<Followed>();
            followed->task =
                std::make_shared<SubmittedTask>(std::make_shared<PlainTask>(), NORMAL, callback);
            return Action([logging, followed, call] { return call(*followed); });
        };
    };
    return {
        {"SubmittedTask(task)",
         "1000",
         {memory},
         [] {
             auto const task = std::make_shared<PlainTask>();
             auto const callback = std::make_shared<Callback>(
                 [a = 1L, b = 2L, c = 3L](std::shared_ptr<Task> const&) { return a + b + c; });
             return Action([task, callback] {
                 SubmittedTask const submitted(task, NORMAL, *callback);
                 return shown(static_cast<int>(submitted.getRank()));
             });
         }},
        {"SubmittedTask(null)",
         "Null Task",
         {memory},
         [] {
             auto const logging = std::make_shared<Logging>();
             return Action([logging] {
                 SubmittedTask const submitted(nullptr, NORMAL, nullptr);
                 return shown(submitted.taskName());
             });
         }},
        {"SubmittedTask(function)",
         "a task",
         {memory},
         [] {
             auto const work = std::make_shared<Work>(succeed);
             return Action([work] {
                 SubmittedTask const submitted(*work, NORMAL, nullptr, "a task");
                 return shown(submitted.taskName());
             });
         }},
        {"SubmittedTask::setState, getState", "4", {lock}, onTask([](Followed& followed) {
             followed.task->setState(Executable::CANCELLED);
             return shown(followed.task->getState());
         })},
        {"SubmittedTask::setResult, getResult", "3", {lock}, onTask([](Followed& followed) {
             followed.task->setResult(Executable::FAILURE);
             return shown(followed.task->getResult());
         })},
        {"SubmittedTask::isCancelled", "false", {lock}, onTask([](Followed& followed) {
             return shown(followed.task->isCancelled());
         })},
        {"SubmittedTask::updateTaskState",
         "5",
         {nth(Call::LOCK, 1, SYSTEM_ERROR)},
         onTask([](Followed& followed) {
             followed.task->updateTaskState(Executable::DONE);
             return shown(followed.handle->getState());
         })},
        {"SubmittedTask::setHandle, getHandle", "true", {lock}, onTask([](Followed& followed) {
             followed.task->setHandle(followed.handle);
             return shown(followed.task->getHandle().lock() == followed.handle);
         })},
        {"SubmittedTask::setRank, setPriority", "5000000", {}, onTask([](Followed& followed) {
             followed.task->setPriority(HIGH);
             followed.task->setRank(5000000);
             return shown(static_cast<int>(followed.task->getRank()));
         })},
        {"SubmittedTask::setPriority, when queued",
         "1",
         {lock},
         [] {
             auto const queue = queueUnder(true);
             auto const task = submission();
             queue->addTask(task);
             return Action([queue, task] {
                 task->setPriority(LOW);
                 return shown(static_cast<int>(task->getRank()));
             });
         }},
        {"SubmittedTask::execute", "result 2", executing({2}, 3), onTask(execute), {}, used},
        {"SubmittedTask::execute, an exception",
         "result 3 with an exception",
         executing({2, 3}, 4),
         onTask(execute, []() -> Executable::Result { throw std::runtime_error("it is so"); }),
         {},
         used},
        {"SubmittedTask::execute, a number thrown",
         "result 3 with an exception",
         executing({2, 3}, 4),
         onTask(execute, []() -> Executable::Result { throw 5; }),
         {},
         used},
        {"SubmittedTask::performCallback", "called", {}, calling([](std::shared_ptr<Task> const&) {
         })},
        {"SubmittedTask::performCallback, an exception",
         "called",
         {},
         calling([](std::shared_ptr<Task> const&) { throw std::runtime_error("it is so"); })},
        {"SubmittedTask::performCallback, a number",
         "called",
         {},
         calling([](std::shared_ptr<Task> const&) { throw 5; })},
        {"SubmittedTask::setPromiseValue",
         "set",
         {lock},
         onTask([](Followed& followed) {
             followed.task->setPromiseValue();
             return shown("set");
         }),
         {},
         used},
        {"SubmittedTask::getFuture",
         "true",
         {memory, lock},
         onTask([](Followed& followed) { return shown(followed.task->getFuture().valid()); }),
         {},
         used},
        // What is logged of the mistake, or is not, makes no difference.
        {"SubmittedTask::setPromiseValue, again",
         used,
         {nth(Call::LOCK, 1, SYSTEM_ERROR), memory},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->setPromiseValue();
             return Action([followed] {
                 followed->task->setPromiseValue();
                 return shown("set");
             });
         }},
        {"SubmittedTask::getFuture, again",
         used,
         {nth(Call::LOCK, 1, SYSTEM_ERROR), memory},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->getFuture();
             return Action([followed] { return shown(followed->task->getFuture().valid()); });
         }},
        {"SubmittedTask::provideProxy", "true", {memory}, onTask([](Followed& followed) {
             auto const proxy = SubmittedTask::provideProxy(followed.task);
             return shown(proxy != nullptr);
         })},
    };
}

std::vector<Operation> handleOperations() {
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    char const* const used = "std::future_error";
    return {
        {"TaskHandle(proxy)",
         "1",
         {lock},
         [] {
             auto const task = submission();
             auto const proxy = SubmittedTask::provideProxy(task);
             return Action([task, proxy] {
                 TaskHandle const handle(proxy);
                 return shown(handle.getState());
             });
         }},
        {"TaskHandle::cancel", "true", {lock}, onTask([](Followed& followed) {
             followed.handle->cancel();
             return shown(followed.handle->isDone());
         })},
        {"TaskHandle::updatePriority", "1", {}, onTask([](Followed& followed) {
             followed.handle->updatePriority(LOW);
             return shown(static_cast<int>(followed.task->getRank()));
         })},
        {"TaskHandle::waitForCompletion",
         "true",
         {lock},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->execute();
             return Action([followed] {
                 followed->handle->waitForCompletion();
                 return shown(followed->handle->isDone());
             });
         },
         {},
         used},
        {"TaskHandle::waitForCompletion, again",
         used,
         {nth(Call::LOCK, 1, SYSTEM_ERROR), any(Call::NEW, OUT_OF_MEMORY)},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->execute();
             followed->handle->waitForCompletion();
             return Action([followed] {
                 followed->handle->waitForCompletion();
                 return shown("waited");
             });
         }},
        {"TaskHandle::getException", "true", {}, onTask([](Followed& followed) {
             return shown(followed.handle->getException() == nullptr);
         })},
    };
}

std::vector<Operation> queueOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    return {
        {"SubmittedTasksQueue(strategy)",
         "false",
         {memory},
         [] {
             auto const strategy = std::make_shared<NoStarveTaskRankingStrategy>();
             return Action([strategy] {
                 SubmittedTasksQueue const queue(strategy);
                 return shown(queue.isClosed());
             });
         }},
        {"SubmittedTasksQueue::addTask", "1", {memory, lock}, onQueue(true, addOne)},
        {"SubmittedTasksQueue::addTask, ageing", "1", {memory, lock}, onQueue(false, addOne)},
        {"SubmittedTasksQueue::getNextTask",
         "oldest, then 3",
         {lock},
         picking(true, NORMAL, rankedAt(1000))},
        {"SubmittedTasksQueue::getNextTask, re-ranked",
         "oldest, then 3",
         {lock},
         picking(true, NORMAL, rankedAt(5000))},
        {"SubmittedTasksQueue::getNextTask, ageing",
         "oldest, then 3",
         {lock},
         picking(false, NORMAL, rankedAt(1000))},
        {"SubmittedTasksQueue::getNextTask, soon of the highest rank",
         "oldest, then 3",
         {lock},
         picking(false, NORMAL, rankedAt(0x60000000))},
        {"SubmittedTasksQueue::getNextTask, lowered",
         "oldest, then 3",
         {lock},
         picking(false, HIGHEST, [](SubmittedTask& task, int) { task.setPriority(LOW); })},
        {"SubmittedTasksQueue::getNextTask, around one that stays low",
         "oldest, then 3",
         {lock},
         picking(false, NORMAL,
                 [](SubmittedTask& task, int i) {
                     if (i != 1) {
                         task.setRank(i == 0 ? 0x70000000 : 0x60000000);
                     }
                 })},
        {"SubmittedTasksQueue::getNextTask, the first of the highest rank",
         "oldest, then 3",
         {lock},
         picking(false, HIGHEST,
                 [](SubmittedTask& task, int i) {
                     if (i != 0) {
                         task.setPriority(NORMAL);
                         task.setRank(0x60000000);
                     }
                 })},
        {"SubmittedTasksQueue::isEmpty",
         "true",
         {lock},
         onQueue(true, [](SubmittedTasksQueue& queue, auto&) { return shown(queue.isEmpty()); })},
        {"SubmittedTasksQueue::close",
         "closed",
         {nth(Call::LOCK, 1, SYSTEM_ERROR),
          // Closed, but what it held dies with it.
          from(Call::LOCK, 2, "std::system_error|closed", PARTLY)},
         [] {
             auto const queue = queueUnder(false);
             queue->addTask(submission());
             queue->addTask(submission(succeed, HIGHEST));
             return Action([queue] {
                 queue->close();
                 return shown(queue->isClosed() && queue->isEmpty() ? "closed" : "open");
             });
         }},
        {"~SubmittedTasksQueue, with tasks",
         "destroyed",
         {},
         [] {
             auto queue = std::make_shared<std::shared_ptr<SubmittedTasksQueue>>(queueUnder(false));
             (*queue)->addTask(submission());
             return Action([queue] {
                 queue->reset();
                 return shown("destroyed");
             });
         },
         {},
         nullptr,
         true,
         {Call::LOCK}},
    };
}

std::vector<Operation> executorOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    Rule const thread = any(Call::THREAD, SYSTEM_ERROR);
    // A thread can be had without some of the memory that is asked for.
    Rule const threadMemory = any(Call::MALLOC, "std::system_error|started");
    auto const constructing = [](unsigned int workers) {
        return [workers] {
            auto const queue = queueUnder(true);
            return Action([queue, workers] {
                TaskExecutorImpl const executor(workers, queue);
                return shown("started");
            });
        };
    };
    auto const running = [](log::LogLevel level) {
        return [level] {
            auto const logging = std::make_shared<Logging>(level);
            auto const queue = queueUnder(false);
            auto const cancelled = submission();
            cancelled->setState(Executable::CANCELLED);
            queue->addTask(submission([]() -> Executable::Result { throw 5; }));
            queue->addTask(cancelled);
            queue->addTask(submission());
            queue->addTask(submission([tries = 0]() mutable {
                return ++tries < 3 ? Executable::REPEAT : Executable::SUCCESS;
            }));
            auto const closer = std::make_shared<Closer>(queue);
            auto const worker = std::make_shared<TaskExecutorWorker>(queue);
            return Action([logging, queue, closer, worker] {
                worker->run();
                disarm();
                return shown(queue->isClosed() ? "returned" : "returned too early");
            });
        };
    };
    auto const sharing = [](std::shared_ptr<TaskExecutor> (*get)()) {
        return [get] {
            log::setLogLevel(log::VERBOSE);
            return Action([get] {
                auto const executor = get();
                disarm();
                return outcomeOf(executor->submitTask(succeed, NORMAL, nullptr, "a task"));
            });
        };
    };
    std::vector<Rule> const sharingRules = {memory, thread,
                                            any(Call::MALLOC, "std::system_error|result 2")};
    return {
        {"TaskExecutorImpl, no workers", "started", {memory}, constructing(0)},
        {"TaskExecutorImpl, three workers",
         "started",
         {memory, thread, threadMemory},
         constructing(3)},
        {"TaskExecutorImpl::submitTask(task)",
         "result 2",
         {memory, lock},
         onExecutor(1,
                    [task = std::make_shared<PlainTask>()](TaskExecutorImpl& executor) {
                        return outcomeOf(executor.submitTask(task, NORMAL, nullptr));
                    })},
        {"TaskExecutorImpl::submitTask(function)",
         "result 2",
         {memory, lock},
         onExecutor(1,
                    [](TaskExecutorImpl& executor) {
                        return outcomeOf(executor.submitTask(succeed, NORMAL, nullptr, "a task"));
                    })},
        {"TaskExecutorImpl::addSubmittedTaskToQueue",
         "result 2",
         {memory, lock},
         onExecutor(1,
                    [](TaskExecutorImpl& executor) {
                        return outcomeOf(executor.addSubmittedTaskToQueue(submission()));
                    })},
        {"TaskExecutorImpl::isIdle",
         "true",
         {lock},
         onExecutor(0, [](TaskExecutorImpl& executor) { return shown(executor.isIdle()); })},
        {"~TaskExecutorImpl",
         "destroyed",
         {},
         [] {
             auto const executor = std::make_shared<std::shared_ptr<TaskExecutorImpl>>(
                 std::make_shared<TaskExecutorImpl>(2, queueUnder(false)));
             return Action([executor] {
                 executor->reset();
                 return shown("destroyed");
             });
         },
         {},
         nullptr,
         true,
         {Call::LOCK}},
        {"TaskExecutorWorker(queue)",
         "made",
         {},
         [] {
             auto const logging = std::make_shared<Logging>();
             auto const queue = queueUnder(true);
             return Action([logging, queue] {
                 TaskExecutorWorker const worker(queue);
                 return std::string("made");  // Its end, with a join that fails, is watched too.
             });
         }},
        {"TaskExecutorWorker::start, terminate",
         "started",
         {memory, thread, threadMemory},
         [] {
             auto const queue = queueUnder(true);
             queue->close();
             return Action([queue] {
                 TaskExecutorWorker worker(queue);
                 worker.start();
                 worker.terminate();
                 return shown("started");
             });
         }},
        // On the calling thread. An exception that leaves it would end the process on a worker's.
        {"TaskExecutorWorker::run",
         "returned",
         {any(Call::LOCK, SYSTEM_ERROR, PARTLY)},
         running(log::DISABLED)},
        // The locks of the sinks, which matter to nobody, are among those of the tasks.
        {"TaskExecutorWorker::run, logged",
         "returned",
         {},
         running(log::VERBOSE),
         {},
         nullptr,
         false,
         {Call::LOCK}},
        {"getHighestPriorityTaskExecutor",
         "result 2",
         sharingRules,
         sharing(getHighestPriorityTaskExecutor),
         {},
         nullptr,
         true},
        {"getNoStarveTaskExecutor",
         "result 2",
         sharingRules,
         sharing(getNoStarveTaskExecutor),
         {},
         nullptr,
         true},
    };
}

}  // namespace

std::vector<Operation> taskOperations() {
    std::vector<Operation> operations;
    for (auto const& some :
         {submissionOperations(), handleOperations(), queueOperations(), executorOperations()}) {
        operations.insert(operations.end(), some.begin(), some.end());
    }
    return operations;
}

}  // namespace ovra::faults
