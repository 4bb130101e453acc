// Which locks the queue, its tasks and their handles take, and in which order.

#include <pthread.h>

#include <cstddef>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

using test::mutexesLockedBy;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class QueueLockTest : public test::BoundedTest {};

TEST_F(QueueLockTest, QueueTakesNoLockOnceItIsClosed) {
    auto queue = makeQueue();
    auto const task = submission();
    queue->close();

    EXPECT_THAT(mutexesLockedBy([&] {
                    queue->isClosed();
                    queue->getNextTask();
                    queue->addTask(task);
                    queue->close();
                    queue.reset();
                }),
                IsEmpty());
}

TEST_F(QueueLockTest, OpenQueueSaysThatItIsOpenWithoutALock) {
    auto const queue = makeQueue();

    EXPECT_THAT(mutexesLockedBy([&] { queue->isClosed(); }), IsEmpty());
}

TEST_F(QueueLockTest, QueueIsLockedToAddPickAskAndClose) {
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

TEST_F(QueueLockTest, LockOfTheRanksIsTakenLastAndFreedFirst) {
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

// Other threads change ranks meanwhile, by what the scan has noted.
TEST_F(QueueLockTest, PickLocksTheRanksToNoteHowFarItHasScanned) {
    auto const queue = makeQueue<NoStarveTaskRankingStrategy>();
    auto const task = submission();
    queue->addTask(task);
    auto* const leaf = mutexesLockedBy([&] { task->getRank(); }).at(0);
    queue->addTask(scannedSubmission());

    EXPECT_THAT(mutexesLockedBy([&] { queue->getNextTask(); }), ::testing::Contains(leaf).Times(2));
}

TEST_F(QueueLockTest, QueuesLockComesBeforeThatOfATask) {
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

TEST_F(QueueLockTest, TaskGuardsItsStateResultAndHandleWithOneMutex) {
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

TEST_F(QueueLockTest, TaskPushesEachChangeBeforeItUnlocks) {
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

TEST_F(QueueLockTest, TaskTakesNoLockForRankPriorityAndIndex) {
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

TEST_F(QueueLockTest, ForwardingAnExceptionTakesNoLockOfTheTask) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    EXPECT_THAT(mutexesLockedBy([&] { task->handleAndLogUnknownException(nullptr, true); }),
                IsEmpty());
    EXPECT_NE(handle->getException(), nullptr);
}

TEST_F(QueueLockTest, HandleHasNoLockOfItsOwn) {
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

}  // namespace
}  // namespace ovra::concurrent
