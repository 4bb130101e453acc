// The queue and its workers, stopped at exact places: just before they lock a mutex, wait or wake.

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

using test::mutexesLockedBy;
using ::testing::ElementsAre;

class QueueTimingTest : public test::BoundedTest {};

template <typename Strategy>
class QueueTimingStrategyTest : public test::BoundedTest {};
TYPED_TEST_SUITE(QueueTimingStrategyTest, Strategies, StrategyName);

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

TEST_F(QueueTimingTest, RankThatFallsBelowThePriorityWhileTheTaskIsAddedIsLifted) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const task = submission(succeed(), HIGH);
    {
        Stop stop(*queue, 1);
        std::thread submitter([&] { queue->addTask(task); });
        ASSERT_TRUE(stop.waitUntilReached());
        // As setRank() leaves it that looked at the priority before it was raised.
        task->rankedEntry().rank = 5;
        stop.letProceed();
        submitter.join();
    }
    queue->addTask(submission(succeed(), HIGHEST));

    EXPECT_NE(queue->getNextTask(), task);
    EXPECT_EQ(task->getRank(), 1000000u);
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

TEST_F(QueueTimingTest, StrategyIsNotAskedOnAClosedQueueThatHoldsATask) {
    class Counting : public TaskRankingStrategy {
    public:
        void updateRank(SubmittedTask*) override { ++updates; }
        int updates = 0;
    };
    auto const strategy = std::make_shared<Counting>();
    SubmittedTasksQueue queue(strategy);
    addWhileClosing(queue, submission());
    ASSERT_FALSE(queue.isEmpty());

    EXPECT_EQ(queue.getNextTask(), nullptr);

    EXPECT_EQ(strategy->updates, 0);
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
    EXPECT_EQ(locks, 0) << "there is no queue to notify";
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

// Neither a task whose rank the queue computes, nor one that it scans.
TEST_F(QueueTimingTest, PickThatIsTheFirstAfterTheClosingYieldsNothing) {
    auto const queue = makeQueue();
    queue->addTask(submission());
    queue->addTask(scannedSubmission());
    auto* const mutex = mutexOf(*queue);
    pthread_t const owner = pthread_self();
    std::shared_ptr<SubmittedTask> picked = submission();
    std::thread picker;
    test::Gate found;  // That the queue is open.
    test::Gate closed;
    test::ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* locked) {
        if (locked == mutex && pthread_equal(owner, pthread_self()) == 0) {
            found.open();
            closed.wait();
        }
        return 0;
    };
    calls.afterUnlock = [&](pthread_mutex_t* unlocked) {
        if (unlocked == mutex && pthread_equal(owner, pthread_self()) != 0) {
            closed.open();
            picker.join();
        }
    };
    calls.install();
    picker = std::thread([&] { picked = queue->getNextTask(); });
    found.wait();

    queue->close();

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

}  // namespace
}  // namespace ovra::concurrent
