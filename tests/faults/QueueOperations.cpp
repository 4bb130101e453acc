#include <semaphore.h>

#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskHandle.h>

#include <tests/faults/Tasks.h>

namespace ovra::faults {

namespace {

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
            tasks->push_back(submission(succeed(), priority));
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

}  // namespace

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
             queue->addTask(submission(succeed(), HIGHEST));
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
                return outcomeOf(executor->submitTask(succeed(), NORMAL, nullptr, "a task"));
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
                    [task = std::make_shared<NamedTask>()](TaskExecutorImpl& executor) {
                        return outcomeOf(executor.submitTask(task, NORMAL, nullptr));
                    })},
        {"TaskExecutorImpl::submitTask(function)",
         "result 2",
         {memory, lock},
         onExecutor(1,
                    [](TaskExecutorImpl& executor) {
                        return outcomeOf(executor.submitTask(succeed(), NORMAL, nullptr, "a task"));
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

}  // namespace ovra::faults
