// The queue and its workers, stopped at exact places: just before they lock a mutex, wait or wake.

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

using test::mutexesLockedBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueueTimingTest : public test::BoundedTest {};

template <typename Strategy>
class QueueTimingStrategyTest : public test::BoundedTest {};
using Strategies =
    ::testing::Types<HighestPriorityTaskRankingStrategy, NoStarveTaskRankingStrategy>;
TYPED_TEST_SUITE(QueueTimingStrategyTest, Strategies, StrategyName);

pthread_mutex_t* mutexOf(SubmittedTasksQueue& queue) {
    return mutexesLockedBy([&queue] { queue.isEmpty(); }).at(0);
}

// Stops the first other thread that is about to lock the queue's mutex for the nth time.
class Stop {
public:
    Stop(SubmittedTasksQueue& queue, int nth) : mutex(mutexOf(queue)), remaining(nth) {
        calls.onLock = [this](pthread_mutex_t* locked) {
            if (locked == mutex && pthread_equal(owner, pthread_self()) == 0 && --remaining == 0) {
                stopped = true;
                reached.open();
                proceed.wait();
            }
            return 0;
        };
        calls.onWait = [this](pthread_cond_t*, pthread_mutex_t* held) {
            if (held == mutex) {
                reached.open();
            }
        };
        calls.install();
    }

    // Waits until a thread has stopped, or sleeps because there is nothing to lock for.
    bool waitUntilReached() {
        reached.wait();
        return stopped;
    }
    void letProceed() { proceed.open(); }

private:
    test::ThreadCalls calls;
    pthread_t const owner = pthread_self();
    pthread_mutex_t* const mutex;
    std::atomic<int> remaining;
    std::atomic<bool> stopped{false};
    test::Gate reached;
    test::Gate proceed;
};

// A worker that finds nothing locks twice, to fetch and to wait; then it sleeps.
constexpr int LOCKS_BEFORE_SLEEP = 2;

TEST_F(QueueTimingTest, TaskAddedAtAnyMomentIsNotSleptThrough) {
    for (int nth = 1; nth <= LOCKS_BEFORE_SLEEP + 1; ++nth) {
        auto const queue = makeQueue();
        Stop stop(*queue, nth);
        TaskExecutorImpl executor(1, queue);
        ASSERT_EQ(stop.waitUntilReached(), nth <= LOCKS_BEFORE_SLEEP) << nth;

        auto const handle = executor.submitTask(succeed(), NORMAL, {}, "work");
        stop.letProceed();
        handle->waitForCompletion();

        EXPECT_EQ(handle->getState(), Executable::DONE);
    }
}

TEST_F(QueueTimingTest, TaskAddedAtAnyMomentAfterAnotherIsNotSleptThrough) {
    // The fetch of the first task, then as before.
    for (int nth = 2; nth <= LOCKS_BEFORE_SLEEP + 2; ++nth) {
        auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
        auto const first = queue->addTask(submission());
        Stop stop(*queue, nth);
        TaskExecutorImpl executor(1, queue);
        first->waitForCompletion();
        ASSERT_EQ(stop.waitUntilReached(), nth <= LOCKS_BEFORE_SLEEP + 1) << nth;

        auto const handle = executor.submitTask(succeed(), NORMAL, {}, "work");
        stop.letProceed();
        handle->waitForCompletion();

        EXPECT_EQ(handle->getState(), Executable::DONE);
    }
}

TEST_F(QueueTimingTest, QueueClosedAtAnyMomentEndsTheWorker) {
    for (int nth = 1; nth <= LOCKS_BEFORE_SLEEP + 1; ++nth) {
        auto const queue = makeQueue();
        Stop stop(*queue, nth);
        auto executor = std::make_unique<TaskExecutorImpl>(1, queue);
        ASSERT_EQ(stop.waitUntilReached(), nth <= LOCKS_BEFORE_SLEEP) << nth;

        queue->close();
        stop.letProceed();

        executor.reset();
    }
}

// Closes the queue when it has already agreed to take the task.
std::shared_ptr<TaskHandle> addWhileClosing(SubmittedTasksQueue& queue,
                                            std::shared_ptr<SubmittedTask> task) {
    std::shared_ptr<TaskHandle> handle;
    Stop stop(queue, 1);
    std::thread submitter([&] { handle = queue.addTask(std::move(task)); });
    EXPECT_TRUE(stop.waitUntilReached());
    queue.close();
    stop.letProceed();
    submitter.join();
    return handle;
}

TYPED_TEST(QueueTimingStrategyTest, TaskAddedWhileTheQueueIsClosedIsKeptAndNeverRuns) {
    auto queue = makeQueue<TypeParam>();
    for (int i = 0; i < 3; ++i) {
        queue->addTask(submission());
    }
    queue->getNextTask();
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    auto const handle = addWhileClosing(*queue, std::move(task));

    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_EQ(queue->getNextTask(), nullptr);
    queue->close();
    EXPECT_FALSE(queue->isEmpty()) << "closing again does nothing";
    TaskExecutorImpl(1, queue);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_FALSE(watched.expired());
    queue.reset();
    EXPECT_TRUE(watched.expired());
}

TYPED_TEST(QueueTimingStrategyTest, TaskAddedWhileTheQueueIsClosedOutlivesTheQueue) {
    auto queue = makeQueue<TypeParam>();
    auto const task = submission(succeed(), HIGHEST);
    addWhileClosing(*queue, task);
    EXPECT_FALSE(queue->isEmpty());
    queue.reset();

    int locks = 0;
    {
        test::ThreadCalls calls;
        calls.onLock = [&locks](pthread_mutex_t*) {
            ++locks;
            return 0;
        };
        calls.install();
        task->setPriority(LOW);
    }
    EXPECT_EQ(locks, 0) << "there is no queue to tell";
    EXPECT_EQ(task->getRank(), 1u);
}

TEST_F(QueueTimingTest, PickThatMeetsTheClosingYieldsNothing) {
    auto const queue = makeQueue();
    auto const task = submission();
    queue->addTask(task);
    task->setRank(5000);  // Yet to be noticed by a pick.
    std::shared_ptr<SubmittedTask> picked = submission();
    {
        Stop stop(*queue, 1);
        std::thread picker([&] { picked = queue->getNextTask(); });
        ASSERT_TRUE(stop.waitUntilReached());
        queue->close();
        stop.letProceed();
        picker.join();
    }

    EXPECT_EQ(picked, nullptr);
}

TEST_F(QueueTimingTest, AddingWakesOneWorkerUnderTheLock) {
    auto const queue = makeQueue();
    auto* const mutex = mutexOf(*queue);
    std::vector<std::string> wakes;
    test::ThreadCalls calls;
    calls.onSignal = [&](pthread_cond_t*) {
        wakes.emplace_back(test::isLocked(mutex) ? "one, locked" : "one");
    };
    calls.onBroadcast = [&](pthread_cond_t*) { wakes.emplace_back("all"); };
    calls.install();

    queue->addTask(submission());
    EXPECT_THAT(wakes, ElementsAre("one, locked"));
    queue->addTask(submission(succeed(), HIGHEST));
    EXPECT_THAT(wakes, ElementsAre("one, locked", "one, locked"));
}

TEST_F(QueueTimingTest, ClosingWakesAllWorkersUnderTheLockOnce) {
    auto const queue = makeQueue();
    auto* const mutex = mutexOf(*queue);
    std::vector<std::string> wakes;
    test::ThreadCalls calls;
    calls.onSignal = [&](pthread_cond_t*) { wakes.emplace_back("one"); };
    calls.onBroadcast = [&](pthread_cond_t*) {
        wakes.emplace_back(test::isLocked(mutex) ? "all, locked" : "all");
    };
    calls.install();

    queue->close();
    queue->close();
    queue->addTask(submission());

    EXPECT_THAT(wakes, ElementsAre("all, locked"));
}

TYPED_TEST(QueueTimingStrategyTest, DroppedTasksAreDestroyedWithoutTheLock) {
    auto const queue = makeQueue<TypeParam>();
    auto* const mutex = mutexOf(*queue);
    std::vector<bool> locked;
    for (TaskPriority const priority : {NORMAL, HIGHEST}) {
        queue->addTask(submission([end = test::atEnd([&] {
                                       locked.push_back(test::isLocked(mutex));
                                   })] { return Executable::SUCCESS; },
                                  priority));
    }

    queue->close();

    EXPECT_THAT(locked, ElementsAre(false, false));
}

TEST_F(QueueTimingTest, StrategyRunsUnderTheLock) {
    class Looking : public TaskRankingStrategy {
    public:
        void updateRank(SubmittedTask*) override { locked = test::isLocked(mutex); }
        pthread_mutex_t* mutex = nullptr;
        bool locked = false;
    };
    auto const strategy = std::make_shared<Looking>();
    SubmittedTasksQueue queue(strategy);
    strategy->mutex = mutexOf(queue);
    queue.addTask(submission());

    queue.getNextTask();

    EXPECT_TRUE(strategy->locked);
}

TEST_F(QueueTimingTest, WorkAndCallbackRunWithoutTheLock) {
    auto const queue = makeQueue();
    auto* const mutex = mutexOf(*queue);
    // Read by the one worker alone; nobody else uses the queue meanwhile.
    std::vector<bool> locked;
    test::Gate calledBack;
    queue->addTask(std::make_shared<SubmittedTask>(
        [&] {
            locked.push_back(test::isLocked(mutex));
            return Executable::SUCCESS;
        },
        NORMAL,
        [&](std::shared_ptr<Task> const&) {
            locked.push_back(test::isLocked(mutex));
            calledBack.open();
        },
        "work"));
    TaskExecutorImpl const executor(1, queue);
    calledBack.wait();

    EXPECT_THAT(locked, ElementsAre(false, false));
}

// --- which locks are taken

TEST_F(QueueTimingTest, QueueTakesNoLockOnceItIsClosed) {
    auto const queue = makeQueue();
    auto const task = submission();
    queue->close();

    EXPECT_THAT(mutexesLockedBy([&] {
                    queue->isClosed();
                    queue->getNextTask();
                    queue->addTask(task);
                    queue->close();
                }),
                IsEmpty());
}

TEST_F(QueueTimingTest, OpenQueueTellsThatItIsOpenWithoutALock) {
    auto const queue = makeQueue();

    EXPECT_THAT(mutexesLockedBy([&] { queue->isClosed(); }), IsEmpty());
}

TEST_F(QueueTimingTest, QueueIsLockedToAddPickAskAndClose) {
    auto const queue = makeQueue();
    auto* const mutex = mutexOf(*queue);
    auto const task = submission();

    EXPECT_THAT(mutexesLockedBy([&] { queue->addTask(task); }),
                ::testing::Contains(mutex).Times(1));
    EXPECT_THAT(mutexesLockedBy([&] { queue->getNextTask(); }),
                ::testing::Contains(mutex).Times(1));
    EXPECT_THAT(mutexesLockedBy([&] { queue->isEmpty(); }), ElementsAre(mutex));
    auto const lockedToClose = mutexesLockedBy([&] { queue->close(); });
    EXPECT_EQ(lockedToClose.front(), mutex);
    EXPECT_THAT(lockedToClose, ::testing::Contains(mutex).Times(1));
}

TEST_F(QueueTimingTest, LockOfTheRanksIsTakenLastAndFreedFirst) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const task = submission();
    auto const other = submission();
    queue->addTask(task);
    auto* const leaf = mutexesLockedBy([&] { task->getRank(); }).at(0);
    bool leafWasLocked = false;
    test::ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t*) {
        leafWasLocked = leafWasLocked || test::isLocked(leaf);
        return 0;
    };
    calls.onSignal = [&](pthread_cond_t*) {
        leafWasLocked = leafWasLocked || test::isLocked(leaf);
    };
    calls.onBroadcast = calls.onSignal;
    calls.onAllocate = [&](std::size_t) { return false; };
    calls.install();

    auto const handle = queue->addTask(other);
    handle->updatePriority(LOW);
    task->setRank(5000);
    queue->addTask(task);
    queue->getNextTask();
    queue->getNextTask();
    queue->close();

    EXPECT_FALSE(leafWasLocked);
}

TEST_F(QueueTimingTest, QueuesLockComesBeforeThatOfATask) {
    auto const queue = makeQueue();
    auto* const queueMutex = mutexOf(*queue);
    auto const task = submission(succeed(), HIGHEST);
    auto* const taskMutex = mutexesLockedBy([&] { task->getState(); }).at(0);
    bool taskWasLocked = false;
    test::ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* mutex) {
        taskWasLocked = taskWasLocked || (mutex == queueMutex && test::isLocked(taskMutex));
        return 0;
    };
    calls.install();

    auto const handle = queue->addTask(task);
    handle->updatePriority(LOW);
    handle->cancel();
    queue->getNextTask();
    queue->addTask(task);
    queue->close();

    EXPECT_FALSE(taskWasLocked);
}

TEST_F(QueueTimingTest, TaskGuardsItsStateResultAndHandleWithOneMutex) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    auto* const mutex = mutexesLockedBy([&] { task->getState(); }).at(0);

    EXPECT_THAT(mutexesLockedBy([&] { task->getState(); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->getResult(); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->isCancelled(); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->getHandle(); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->setState(Executable::DONE); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->setResult(Executable::SUCCESS); }), ElementsAre(mutex));
    EXPECT_THAT(mutexesLockedBy([&] { task->setHandle(handle); }), ElementsAre(mutex));
}

TEST_F(QueueTimingTest, TaskPushesEachChangeBeforeItUnlocks) {
    auto const task = submission();
    auto* const mutex = mutexesLockedBy([&] { task->getState(); }).at(0);
    auto const handle = linkHandle(task);
    std::vector<std::string> pushed;
    test::ThreadCalls calls;
    calls.onUnlock = [&](pthread_mutex_t* unlocked) {
        if (unlocked == mutex) {
            pushed.push_back(taskStateToName(handle->getState()) + std::string(", ") +
                             std::to_string(handle->getResult()) + ", held by " +
                             std::to_string(handle.use_count()));
        }
    };
    calls.install();

    task->setState(Executable::READY);
    task->setResult(Executable::FAILURE);
    EXPECT_THAT(pushed, ElementsAre("READY, 1, held by 1", "READY, 3, held by 1"));

    handle->setState(Executable::DONE);
    handle->setResult(Executable::SUCCESS);
    task->setHandle(handle);
    EXPECT_THAT(pushed.back(), ::testing::StartsWith("READY, 3"));
}

TEST_F(QueueTimingTest, TaskTakesNoLockForRankPriorityAndIndex) {
    auto const task = submission();

    EXPECT_THAT(mutexesLockedBy([&] {
                    task->getRank();
                    task->getPriority();
                    task->setRank(5000);
                    task->setPriority(HIGH);
                    task->getUniqueIndex();
                    task->taskName();
                }),
                IsEmpty());
}

TEST_F(QueueTimingTest, ForwardingAnExceptionTakesNoLockOfTheTask) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    EXPECT_THAT(mutexesLockedBy([&] { task->handleAndLogUnknownException(nullptr, true); }),
                IsEmpty());
    EXPECT_NE(handle->getException(), nullptr);
}

TEST_F(QueueTimingTest, HandleHasNoLockOfItsOwn) {
    auto task = submission();
    auto const handle = linkHandle(task);
    auto* const mutex = mutexesLockedBy([&] { task->getState(); }).at(0);

    EXPECT_THAT(mutexesLockedBy([&] {
                    handle->getState();
                    handle->getResult();
                    handle->isDone();
                    handle->getException();
                    handle->updatePriority(HIGH);
                }),
                IsEmpty());
    EXPECT_THAT(mutexesLockedBy([&] { handle->cancel(); }), ElementsAre(mutex));
    task.reset();
    EXPECT_THAT(mutexesLockedBy([&] {
                    handle->cancel();
                    handle->updatePriority(LOW);
                    handle->waitForCompletion();
                }),
                IsEmpty());
}

TEST_F(QueueTimingTest, TerminatingWakesNobodyAndEveryWakeUpLeadsBackToTheTop) {
    auto const queue = makeQueue();
    auto* const mutex = mutexOf(*queue);
    std::atomic<pthread_cond_t*> condition{nullptr};
    std::atomic<int> wakes{0};
    test::Gate asleep;
    test::ThreadCalls calls;
    calls.onSignal =
        calls.onBroadcast = [&](pthread_cond_t* woken) { wakes += woken == condition ? 1 : 0; };
    calls.onWait = [&](pthread_cond_t* waitedFor, pthread_mutex_t* held) {
        if (held == mutex) {
            EXPECT_EQ(queue.use_count(), 2) << "a worker that sleeps holds its queue";
            condition = waitedFor;
            asleep.open();
        }
    };
    calls.onJoin = [&](pthread_t) {
        EXPECT_EQ(wakes, 0);
        // Once the mutex is free, the worker sleeps. Nothing has happened when it wakes.
        pthread_mutex_lock(mutex);
        pthread_cond_signal(condition);
        pthread_mutex_unlock(mutex);
    };
    TaskExecutorWorker worker(queue);
    calls.install();
    worker.start();
    asleep.wait();

    worker.terminate();

    EXPECT_FALSE(queue->isClosed());
}

TEST_F(QueueTimingTest, NullTaskGivesWayToOthersWhileItWaits) {
    auto const task = std::make_shared<SubmittedTask>(std::shared_ptr<Task>(), NORMAL, Callback());
    int yields = 0;
    test::ThreadCalls calls;
    calls.onYield = [&] {
        if (++yields == 3) {
            task->setState(Executable::CANCELLED);
        }
    };
    calls.install();

    EXPECT_EQ(task->execute(), Executable::ABORTED);

    EXPECT_EQ(yields, 3);
}

// --- ranks that change while the queue works

// Calls `change` at the nth moment in the course of `action` at which this thread is about to lock
// or to allocate, or has just unlocked; says whether it came to that.
bool interrupt(int nth, std::function<void()> const& action, std::function<void()> const& change) {
    int remaining = nth;
    auto const countDown = [&](auto) {
        if (--remaining == 0) {
            change();
        }
        return 0;
    };
    test::ThreadCalls calls;
    calls.onLock = countDown;
    calls.afterUnlock = countDown;
    calls.onAllocate = countDown;
    calls.install();
    action();
    return remaining <= 0;
}

// From now on `task` doubles its rank at every pick, up to the cap.
void expectAgeing(SubmittedTasksQueue& queue, SubmittedTask const& task, int nth) {
    std::uint64_t rank = task.getRank();
    while (rank < SubmittedTask::HIGHEST_CURRENT_RANK_VALUE) {
        auto const urgent = submission(succeed(), HIGHEST);
        queue.addTask(urgent);
        auto const picked = queue.getNextTask();
        ASSERT_NE(picked.get(), &task) << "interrupted at lock " << nth;
        rank = std::min<std::uint64_t>(rank * 2, SubmittedTask::HIGHEST_CURRENT_RANK_VALUE);
        ASSERT_EQ(task.getRank(), rank) << "interrupted at lock " << nth;
    }
}

TEST_F(QueueTimingTest, PriorityLoweredWhileATaskIsAddedCounts) {
    int nth = 0;
    bool interrupted = true;
    while (interrupted) {
        ++nth;
        auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
        auto const urgent = submission(succeed(), HIGHEST);
        auto const task = submission(succeed(), HIGHEST);
        queue->addTask(urgent);

        interrupted = interrupt(
            nth, [&] { queue->addTask(task); }, [&] { task->setPriority(LOW); });

        if (interrupted) {
            ASSERT_EQ(task->getRank(), 1u);
            expectAgeing(*queue, *task, nth);
        }
    }
    EXPECT_GT(nth, 1);
}

TEST_F(QueueTimingTest, PriorityLoweredWhileAnotherTaskIsPickedCounts) {
    for (unsigned int const agedTo : {1000u, 0x3fffffffu, 0x40000000u, 0x7fffffffu}) {
        int nth = 0;
        bool interrupted = true;
        while (interrupted) {
            ++nth;
            auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
            auto const urgent = submission(succeed(), HIGHEST);
            auto const task = submission(succeed(), LOW);
            queue->addTask(task);
            queue->addTask(urgent);
            task->setRank(agedTo);

            interrupted = interrupt(
                nth, [&] { EXPECT_EQ(queue->getNextTask(), urgent); },
                [&] { task->setPriority(LOW); });

            if (interrupted) {
                // Updated by that pick, or only by the next.
                ASSERT_LE(task->getRank(), 2u);
                expectAgeing(*queue, *task, nth);
            }
        }
        EXPECT_GT(nth, 1);
    }
}

TYPED_TEST(QueueTimingStrategyTest, PriorityRaisedWhileATaskIsAddedCounts) {
    int nth = 0;
    bool interrupted = true;
    while (interrupted) {
        ++nth;
        auto const queue = makeQueue<TypeParam>();
        auto const high = submission(succeed(), HIGH);
        auto const task = submission(succeed(), LOW);
        queue->addTask(high);

        interrupted = interrupt(
            nth, [&] { queue->addTask(task); }, [&] { task->setPriority(HIGHEST); });

        ASSERT_EQ(queue->getNextTask(), interrupted ? task : high) << nth;
    }
    EXPECT_GT(nth, 1);
}

TYPED_TEST(QueueTimingStrategyTest, PriorityLoweredAroundAPickCounts) {
    int nth = 0;
    bool interrupted = true;
    while (interrupted) {
        ++nth;
        auto const queue = makeQueue<TypeParam>();
        auto const first = submission(succeed(), HIGHEST);
        auto const task = submission(succeed(), HIGHEST);
        auto const last = submission(succeed(), HIGHEST);
        for (auto const& added : {first, task, last}) {
            queue->addTask(added);
        }
        std::shared_ptr<SubmittedTask> picked;

        interrupted = interrupt(
            nth, [&] { task->setPriority(LOW); }, [&] { picked = queue->getNextTask(); });

        if (!interrupted) {
            picked = queue->getNextTask();
        }
        ASSERT_EQ(picked, first) << nth;
        ASSERT_EQ(queue->getNextTask(), last) << nth;
        ASSERT_EQ(queue->getNextTask(), task) << nth;
    }
}

TYPED_TEST(QueueTimingStrategyTest, RankSetBeforeAPickWithoutMemoryCountsAtTheNext) {
    auto const queue = makeQueue<TypeParam>();
    auto const first = submission(succeed(), HIGHEST);
    auto const middle = submission(succeed(), HIGHEST);
    auto const last = submission(succeed(), HIGHEST);
    for (auto const& added : {first, middle, last}) {
        queue->addTask(added);
    }
    middle->setPriority(LOW);
    middle->setRank(5000);
    {
        test::ThreadCalls calls;
        calls.onAllocate = [](std::size_t) { return true; };
        calls.install();
        EXPECT_EQ(queue->getNextTask(), first);
    }
    bool const doubles = std::is_same_v<TypeParam, NoStarveTaskRankingStrategy>;
    EXPECT_EQ(middle->getRank(), doubles ? 10000u : 5000u);

    EXPECT_EQ(queue->getNextTask(), last);
    EXPECT_EQ(queue->getNextTask(), middle);
}

TYPED_TEST(QueueTimingStrategyTest, PickLooksAtEachTaskOnlyWhileThereIsNoMemory) {
    auto const queue = makeQueue<TypeParam>();
    auto const lowered = submission(succeed(), HIGHEST);
    queue->addTask(lowered);
    for (int i = 0; i < 10; ++i) {
        queue->addTask(submission(succeed(), HIGHEST));
    }
    lowered->setPriority(LOW);
    lowered->setRank(0x60000000);
    {
        test::ThreadCalls calls;
        calls.onAllocate = [](std::size_t) { return true; };
        calls.install();
        EXPECT_NE(queue->getNextTask(), lowered) << "compared before it is updated";
    }
    queue->getNextTask();

    EXPECT_THAT(mutexesLockedBy([&] { queue->getNextTask(); }), ::testing::SizeIs(2))
        << "the queue's and that of the task it takes";
}

TYPED_TEST(QueueTimingStrategyTest, PriorityRaisedWhileAnotherTaskIsPickedCounts) {
    int nth = 0;
    bool interrupted = true;
    while (interrupted) {
        ++nth;
        auto const queue = makeQueue<TypeParam>();
        auto const task = submission(succeed(), LOW);
        auto const high = submission(succeed(), HIGH);
        auto const higher = submission(succeed(), HIGH);
        higher->setRank(1500000);
        for (auto const& added : {task, high, higher}) {
            queue->addTask(added);
        }
        std::shared_ptr<SubmittedTask> first;

        interrupted = interrupt(
            nth, [&] { first = queue->getNextTask(); }, [&] { task->setPriority(HIGHEST); });

        if (!interrupted) {
            ASSERT_EQ(first, higher);
            ASSERT_EQ(queue->getNextTask(), high);
        } else if (first != task) {
            ASSERT_EQ(first, higher) << nth;
            ASSERT_EQ(queue->getNextTask(), task) << nth;
        }
    }
    EXPECT_GT(nth, 1);
}

TEST_F(QueueTimingTest, TaskMayEnterAnotherQueueAsItIsPicked) {
    int nth = 0;
    bool interrupted = true;
    while (interrupted) {
        auto const first = makeQueue();
        auto const second = makeQueue();
        auto const task = submission();
        first->addTask(task);
        std::shared_ptr<SubmittedTask> picked;

        interrupted = interrupt(
            ++nth, [&] { picked = first->getNextTask(); },
            [&] {
                task->setRank(5000);
                second->addTask(task);
            });

        EXPECT_EQ(picked, task) << nth;
        EXPECT_TRUE(first->isEmpty()) << nth;
        EXPECT_EQ(second->getNextTask(), interrupted ? task : nullptr) << nth;
    }
    EXPECT_GT(nth, 1);
}

// --- memory

class PatientStrategy : public TaskRankingStrategy {
public:
    void updateRank(SubmittedTask*) override {}
};

// The most bytes that are allocated at once in the course of `action`.
std::size_t largestBlockOf(std::function<void()> const& action) {
    std::size_t largest = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t bytes) {
        largest = std::max(largest, bytes);
        return false;
    };
    calls.install();
    action();
    return largest;
}

TEST_F(QueueTimingTest, TaskThatFindsNoMemoryDiesWithoutTheLock) {
    auto const queue = makeQueue<PatientStrategy>();
    bool died = false;
    std::shared_ptr<void> guard(nullptr, [&](void*) { died = queue->isEmpty(); });
    auto task = submission([guard] { return Executable::SUCCESS; });
    guard.reset();
    int allocations = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t) { return ++allocations == 2; };  // After the handle's.
    calls.install();

    EXPECT_THROW(queue->addTask(std::move(task)), std::bad_alloc);
    EXPECT_TRUE(died);
}

TYPED_TEST(QueueTimingStrategyTest, TasksOfTheirFirstPriorityNeedNoMemoryButForTheirHandles) {
    auto const queue = makeQueue<TypeParam>();
    int allocations = 0;
    for (int i = 0; i < 40; ++i) {
        auto const task = submission(succeed(), static_cast<TaskPriority>(i % 4 + 1));
        test::ThreadCalls calls;
        calls.onAllocate = [&](std::size_t) {
            ++allocations;
            return false;
        };
        calls.install();
        queue->addTask(task);
    }
    EXPECT_EQ(allocations, 40);

    test::ThreadCalls calls;
    calls.onAllocate = [](std::size_t) { return true; };
    calls.install();
    int picked = 0;
    while (queue->getNextTask()) {
        ++picked;
    }
    EXPECT_EQ(picked, 40) << "also when all have the highest rank";
}

void fillAndDrain(SubmittedTasksQueue& queue, int tasks) {
    for (int i = 0; i < tasks; ++i) {
        queue.addTask(submission());
    }
    while (queue.getNextTask()) {
    }
}

TEST_F(QueueTimingTest, QueueThatIsNeverEmptyDoesNotGrow) {
    for (auto const& queue :
         {makeQueue(), makeQueue<NoStarveTaskRankingStrategy>(), makeQueue<PatientStrategy>()}) {
        for (int i = 0; i < 10; ++i) {
            queue->addTask(submission());
        }
        EXPECT_LT(largestBlockOf([&] {
                      for (int i = 0; i < 10000; ++i) {
                          queue->addTask(submission());
                          queue->getNextTask();
                      }
                  }),
                  4096u);
    }
}

TEST_F(QueueTimingTest, NoBlockGrowsWithTheNumberOfTasks) {
    for (auto const& queue :
         {makeQueue(), makeQueue<NoStarveTaskRankingStrategy>(), makeQueue<PatientStrategy>()}) {
        auto const burst = [&](int tasks) {
            return largestBlockOf([&] { fillAndDrain(*queue, tasks); });
        };
        EXPECT_EQ(burst(2000), burst(2));
    }
}

}  // namespace
}  // namespace ovra::concurrent
