// What happens when threads cannot be started or mutexes not be locked, and in what order workers
// are joined.

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <tests/concurrent/QueueTest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

// The threads that are started and joined; the nth start fails, if wanted.
class ThreadCount {
public:
    explicit ThreadCount(int nthToFail = 0) : remaining(nthToFail) {
        calls.onCreate = [this] {
            if (--remaining != 0) {
                return 0;
            }
            if (beforeFailure) {
                beforeFailure();
            }
            return EAGAIN;
        };
        calls.afterCreate = [this](pthread_t thread) { started.push_back(thread); };
        calls.onJoin = [this](pthread_t thread) { joined.push_back(thread); };
        calls.install();
    }

    std::vector<pthread_t> started;
    std::vector<pthread_t> joined;
    std::function<void()> beforeFailure;

private:
    test::ThreadCalls calls;
    int remaining;
};

std::vector<pthread_t> reversed(std::vector<pthread_t> threads) {
    std::reverse(threads.begin(), threads.end());
    return threads;
}

std::error_code errorOf(std::function<void()> const& action) {
    try {
        action();
    } catch (std::system_error const& e) {
        return e.code();
    }
    return {};
}

class ThreadFailureTest : public test::BoundedTest {};

// --- threads

TEST_F(ThreadFailureTest, WorkersAreJoinedNewestFirst) {
    ThreadCount threads;
    { TaskExecutorImpl const executor(5, makeQueue()); }

    EXPECT_EQ(threads.started.size(), 5u);
    EXPECT_EQ(threads.joined, reversed(threads.started));
}

TEST_F(ThreadFailureTest, ExecutorStartsAtMostTwelveThreads) {
    for (unsigned int const asked : {0u, 1u, 12u, 13u, 0xffffffffu}) {
        ThreadCount threads;
        { TaskExecutorImpl const executor(asked, makeQueue()); }

        EXPECT_EQ(threads.started.size(), std::min(asked, 12u));
        EXPECT_EQ(threads.joined.size(), threads.started.size());
    }
}

TEST_F(ThreadFailureTest, ExecutorWithoutAQueueStartsNoThread) {
    ThreadCount threads;
    { TaskExecutorImpl const executor(3, nullptr); }

    EXPECT_EQ(threads.started.size(), 0u);
}

TEST_F(ThreadFailureTest, QueueIsClosedBeforeTheFirstJoin) {
    auto const queue = makeQueue();
    std::vector<bool> closed;
    test::ThreadCalls calls;
    calls.onJoin = [&](pthread_t) { closed.push_back(queue->isClosed()); };
    calls.install();
    { TaskExecutorImpl const executor(2, queue); }

    EXPECT_THAT(closed, ElementsAre(true, true));
}

TEST_F(ThreadFailureTest, WorkerStartsAndJoinsItsThreadOnce) {
    auto const queue = makeQueue();
    ThreadCount threads;
    {
        TaskExecutorWorker worker(queue);
        EXPECT_EQ(threads.started.size(), 0u);
        worker.start();
        EXPECT_EQ(threads.started.size(), 1u);
        queue->close();
        worker.terminate();
        EXPECT_EQ(threads.joined, threads.started);
        worker.terminate();
    }
    EXPECT_EQ(threads.joined, threads.started);
}

TEST_F(ThreadFailureTest, TerminationIsSeenAfterTheTaskThatRuns) {
    auto const queue = makeQueue();
    test::Gate entered;
    test::Gate joining;
    queue->addTask(submission([&] {
        entered.open();
        joining.wait();
        return Executable::SUCCESS;
    }));
    auto const next = queue->addTask(submission());
    test::ThreadCalls calls;
    calls.onJoin = [&](pthread_t) { joining.open(); };
    calls.install();
    TaskExecutorWorker worker(queue);
    worker.start();
    entered.wait();

    worker.terminate();

    EXPECT_EQ(next->getState(), Executable::UNSCHEDULED);
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_FALSE(queue->isClosed());
}

TEST_F(ThreadFailureTest, WorkerThatCannotStartLetsTheErrorOut) {
    test::LogRecorder recorder(log::ERROR);
    {
        ThreadCount threads(1);
        TaskExecutorWorker worker(makeQueue());

        EXPECT_EQ(errorOf([&] { worker.start(); }),
                  std::make_error_code(std::errc::resource_unavailable_try_again));
        EXPECT_EQ(threads.started.size(), 0u);
    }
    EXPECT_EQ(recorder.texts().size(), 1u) << "there was nothing to join";
}

class NthThreadFailureTest : public ThreadFailureTest, public ::testing::WithParamInterface<int> {};

TEST_P(NthThreadFailureTest, LeavesNothingRunning) {
    auto const queue = makeQueue();
    ThreadCount threads(GetParam());

    EXPECT_EQ(errorOf([&] { TaskExecutorImpl(4, queue); }),
              std::make_error_code(std::errc::resource_unavailable_try_again));

    EXPECT_EQ(threads.started.size(), static_cast<std::size_t>(GetParam() - 1));
    EXPECT_EQ(threads.joined, reversed(threads.started));
    EXPECT_TRUE(queue->isClosed());
    EXPECT_EQ(queue.use_count(), 1);
}

INSTANTIATE_TEST_SUITE_P(ThreadFailureTest, NthThreadFailureTest, ::testing::Values(1, 2, 3, 4));

TEST_F(ThreadFailureTest, FailingExecutorFinishesTheTasksThatAlreadyRun) {
    auto const queue = makeQueue();
    test::Gate entered;
    test::Gate dropped;
    std::atomic<bool> calledBack{false};
    auto const running = queue->addTask(std::make_shared<SubmittedTask>(
        [&] {
            entered.open();
            dropped.wait();
            return Executable::SUCCESS;
        },
        HIGHEST, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "running"));
    auto const queued = queue->addTask(submission(
        [end = test::atEnd([&dropped] { dropped.open(); })] { return Executable::SUCCESS; }));
    ThreadCount threads(2);
    threads.beforeFailure = [&entered] { entered.wait(); };

    EXPECT_THROW(TaskExecutorImpl(3, queue), std::system_error);

    EXPECT_EQ(running->getState(), Executable::DONE);
    EXPECT_TRUE(calledBack);
    EXPECT_EQ(queued->getState(), Executable::UNSCHEDULED);
    EXPECT_TRUE(queue->isClosed());
    EXPECT_EQ(threads.joined, threads.started);
}

TEST_F(ThreadFailureTest, ThreadThatFailsToStartIsReportedByItsWorker) {
    test::LogRecorder recorder(log::ERROR);
    ThreadCount threads(1);
    EXPECT_THROW(TaskExecutorImpl(1, makeQueue()), std::system_error);

    ASSERT_EQ(recorder.texts().size(), 1u);
    EXPECT_THAT(
        recorder.texts()[0],
        ::testing::StartsWith("[~TaskExecutorWorker():ERROR] Worker thread join failed due to '"));
}

struct Shared {
    char const* name;
    std::shared_ptr<TaskExecutor> (*get)();
};

void PrintTo(Shared const& row, std::ostream* out) {
    *out << row.name;
}

class SharedExecutorFailureTest : public ThreadFailureTest,
                                  public ::testing::WithParamInterface<Shared> {};

TEST_P(SharedExecutorFailureTest, NextCallTriesAgain) {
    auto const process = [] {
        {
            ThreadCount threads(1);
            test::LogRecorder recorder;
            threads.beforeFailure = [&] {  // The call is logged by then.
                if (recorder.texts().size() != 1) {
                    std::_Exit(4);
                }
            };
            if (errorOf([] { GetParam().get(); }) != std::errc::resource_unavailable_try_again) {
                std::_Exit(1);
            }
        }
        auto const executor = GetParam().get();
        auto const handle = executor->submitTask(succeed(), NORMAL, {}, "work");
        if (!handle) {
            std::_Exit(2);
        }
        handle->waitForCompletion();
        std::_Exit(handle->getResult() == Executable::SUCCESS ? 0 : 3);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(ThreadFailureTest, SharedExecutorFailureTest,
                         ::testing::Values(Shared{"HighestPriority",
                                                  &getHighestPriorityTaskExecutor},
                                           Shared{"NoStarve", &getNoStarveTaskExecutor}));

// --- mutexes

// What `action` throws if its nth lock fails.
std::error_code errorWithoutLock(int nth, std::function<void()> const& action) {
    int remaining = nth;
    test::ThreadCalls calls;
    calls.onLock = [&remaining](pthread_mutex_t*) { return --remaining == 0 ? EINVAL : 0; };
    calls.install();
    return errorOf(action);
}

auto const NO_LOCK = std::make_error_code(std::errc::invalid_argument);

TEST_F(ThreadFailureTest, QueueThatCannotLockThrowsAndStaysAsItWas) {
    auto const queue = makeQueue();
    auto const task = submission();
    auto const scanned = scannedSubmission();
    queue->addTask(task);
    queue->addTask(scanned);

    EXPECT_EQ(errorWithoutLock(1, [&] { queue->isEmpty(); }), NO_LOCK);
    for (int const nth : {1, 2}) {  // The lock of the queue, and that of its ranks.
        EXPECT_EQ(errorWithoutLock(nth, [&] { queue->getNextTask(); }), NO_LOCK);
        EXPECT_EQ(errorWithoutLock(nth, [&] { queue->close(); }), NO_LOCK);
    }

    EXPECT_FALSE(queue->isClosed());
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_EQ(queue->getNextTask(), task);
    EXPECT_EQ(queue->getNextTask(), scanned);
    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(ThreadFailureTest, QueueThatCannotLockDoesNotTakeATask) {
    auto const queue = makeQueue();
    auto const task = submission();
    auto* const mutex = test::mutexesLockedBy([&] { queue->isEmpty(); }).at(0);
    test::ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* locked) { return locked == mutex ? EINVAL : 0; };
    calls.install();

    EXPECT_EQ(errorOf([&] { queue->addTask(task); }), NO_LOCK);

    calls.onLock = nullptr;
    EXPECT_TRUE(queue->isEmpty());
    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(ThreadFailureTest, TaskThatCannotLockThrowsAndStaysAsItWas) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    EXPECT_EQ(errorWithoutLock(1, [&] { task->getState(); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { task->getResult(); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { task->isCancelled(); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { task->setState(Executable::DONE); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { task->setResult(Executable::FAILURE); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { task->setHandle(nullptr); }), NO_LOCK);
    EXPECT_EQ(errorWithoutLock(1, [&] { handle->cancel(); }), NO_LOCK);

    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(task->getHandle().lock(), handle);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
}

}  // namespace
}  // namespace ovra::concurrent
