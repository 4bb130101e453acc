#include <ovra/concurrent/TaskExecutorWorker.h>

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<TaskExecutorWorker>);
static_assert(!std::is_copy_constructible_v<TaskExecutorWorker>);

char const STARTING[] = "[TaskExecutorWorker::run():INFO] Starting task executor worker thread.";
char const TERMINATING[] =
    "[TaskExecutorWorker::run():INFO] Terminating task executor worker thread.";

std::string threadName(pthread_t thread = pthread_self()) {
    char name[64] = "";
    EXPECT_EQ(pthread_getname_np(thread, name, sizeof name), 0);
    return name;
}

// What joining a thread that was never started has to say.
std::string joinFailure() {
    try {
        std::thread().join();
    } catch (std::system_error const& e) {
        return e.what();
    }
    return "";
}

// A queue that one worker serves. Closes the queue before it lets the worker go.
class TaskExecutorWorkerTest : public test::BoundedTest {
protected:
    ~TaskExecutorWorkerTest() override { stop(); }

    void start() {
        worker = std::make_shared<TaskExecutorWorker>(queue);
        worker->start();
    }
    void stop() {
        if (queue) {
            queue->close();
        }
        worker.reset();
    }
    std::shared_ptr<TaskHandle> add(Work const& work, char const* name = "work") {
        return queue->addTask(submission(work, NORMAL, name));
    }
    // Runs `work` and returns once it has come to its end.
    void run(Work const& work, char const* name = "work") { add(work, name)->waitForCompletion(); }

    std::shared_ptr<SubmittedTasksQueue> queue = makeQueue();
    std::shared_ptr<TaskExecutorWorker> worker;
};

// --- life

TEST_F(TaskExecutorWorkerTest, RunsNothingBeforeItIsStarted) {
    test::LogRecorder recorder;
    bool ran = false;
    add([&ran] {
        ran = true;
        return Executable::SUCCESS;
    });
    {
        TaskExecutorWorker const idle(queue);
        EXPECT_FALSE(queue->isEmpty());
    }
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_FALSE(ran);
    EXPECT_EQ(recorder.count(STARTING), 0);
}

TEST_F(TaskExecutorWorkerTest, DoesNotKeepItsQueueAlive) {
    TaskExecutorWorker const idle(queue);

    EXPECT_EQ(queue.use_count(), 1);
}

TEST_F(TaskExecutorWorkerTest, LogsItsStartAndItsEnd) {
    test::LogRecorder recorder;
    start();
    recorder.waitFor(STARTING);
    EXPECT_EQ(recorder.count(TERMINATING), 0);

    stop();

    EXPECT_THAT(recorder.lines(), ElementsAre(test::LogLine{STARTING, log::INFO},
                                              test::LogLine{TERMINATING, log::INFO}));
}

TEST_F(TaskExecutorWorkerTest, IsSilentAtTheInitialLevel) {
    test::LogRecorder recorder(log::ERROR);
    start();
    run([]() -> Executable::Result { throw std::runtime_error("unheard"); });
    stop();

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(TaskExecutorWorkerTest, StopsOfItsOwnAccordWhenItFindsTheQueueClosed) {
    test::LogRecorder recorder;
    queue->close();
    start();

    recorder.waitFor(TERMINATING);

    worker->terminate();
    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING)) << "and can be joined";
}

TEST_F(TaskExecutorWorkerTest, LogsItsEndWithoutTheQueueAndItsLock) {
    test::LogRecorder recorder;
    test::Gate looked;
    long references = 0;
    recorder.onLine([&](test::LogLine const& line) {
        if (line.text == TERMINATING) {
            queue->isEmpty();  // Locks.
            references = queue.use_count();
            looked.open();
        }
    });
    queue->close();
    start();

    looked.wait();

    EXPECT_EQ(references, 1);
    stop();
}

TEST_F(TaskExecutorWorkerTest, ClosingTheQueueWakesItAndEndsIt) {
    test::LogRecorder recorder;
    start();
    run(succeed());

    queue->close();

    recorder.waitFor(TERMINATING);
    EXPECT_EQ(recorder.count(TERMINATING), 1);
}

TEST_F(TaskExecutorWorkerTest, FinishesItsTaskAndCallbackAfterTheQueueIsClosed) {
    test::Gate entered;
    test::Gate release;
    std::atomic<bool> calledBack{false};
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&] {
            entered.open();
            release.wait();
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "work"));
    start();
    entered.wait();
    queue->close();
    release.open();

    worker->terminate();

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_TRUE(calledBack);
}

TEST_F(TaskExecutorWorkerTest, TerminatingAgainDoesNothing) {
    test::LogRecorder recorder;
    start();
    queue->close();
    worker->terminate();

    worker->terminate();
    worker.reset();

    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING));
}

TEST_F(TaskExecutorWorkerTest, JoiningAThreadThatWasNeverStartedIsLoggedOnce) {
    test::LogRecorder recorder(log::ERROR);
    {
        TaskExecutorWorker idle(queue);
        idle.terminate();
        idle.terminate();
    }
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{"[~TaskExecutorWorker():ERROR] Worker thread join "
                                          "failed due to '" +
                                              joinFailure() + "'!\n",
                                          log::ERROR}));
}

TEST_F(TaskExecutorWorkerTest, DestructionTerminates) {
    test::LogRecorder recorder(log::ERROR);
    { TaskExecutorWorker const idle(queue); }

    EXPECT_EQ(recorder.lines().size(), 1u);
}

TEST_F(TaskExecutorWorkerTest, RunCanBeCalledOnAThreadOfTheHost) {
    test::LogRecorder recorder;
    TaskExecutorWorker idle(queue);
    bool ran = false;
    auto const handle = add([&] {
        ran = true;
        queue->close();
        return Executable::SUCCESS;
    });

    idle.run();

    EXPECT_TRUE(ran);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(recorder.count(STARTING), 1);
    EXPECT_EQ(recorder.count(TERMINATING), 1);
}

TEST_F(TaskExecutorWorkerTest, EndsBeforeTheNextTaskOnceItIsTerminated) {
    test::LogRecorder recorder;
    TaskExecutorWorker idle(queue);
    // On the worker's own thread of control, where there is no thread to join.
    add([&idle] {
        idle.terminate();
        return Executable::SUCCESS;
    });
    auto const next = add(succeed());

    idle.run();

    EXPECT_EQ(next->getState(), Executable::UNSCHEDULED);
    EXPECT_FALSE(queue->isEmpty());
    EXPECT_EQ(recorder.count(TERMINATING), 1);
    EXPECT_EQ(recorder.texts().back(), TERMINATING);
}

TEST_F(TaskExecutorWorkerTest, TerminatedBeforeItRunsTakesNothing) {
    TaskExecutorWorker idle(queue);
    idle.terminate();
    auto const handle = add(succeed());
    test::LogRecorder recorder;

    idle.run();

    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING));
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

// What is logged at `ERROR`, on the standard error stream.
class PrintedErrors {
public:
    PrintedErrors() {
        recorder.onLine(
            [](test::LogLine const& line) { std::fputs((line.text + "\n").c_str(), stderr); });
    }

private:
    test::LogRecorder recorder{log::ERROR};
};

TEST_F(TaskExecutorWorkerTest, StartingASecondTimeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            PrintedErrors const errors;
            start();
            worker->start();
        },
        ::testing::KilledBySignal(SIGABRT),
        "TaskExecutorWorker::start\\(\\):ERROR\\] The process ends, as the worker's last thread");
}

TEST_F(TaskExecutorWorkerTest, StartingAfterTheEndThenDestroyingEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            PrintedErrors const errors;
            start();
            queue->close();
            worker->terminate();
            worker->start();  // Never joined: the worker has been terminated before.
            worker.reset();
        },
        ::testing::KilledBySignal(SIGABRT),
        "~TaskExecutorWorker\\(\\):ERROR\\] The process ends, as the worker's thread cannot");
}

TEST_F(TaskExecutorWorkerTest, DestructionOnItsOwnThreadEndsTheProcess) {
    auto const process = [this] {
        test::LogRecorder recorder(log::ERROR);
        recorder.onLine([](test::LogLine const& line) { std::fputs(line.text.c_str(), stderr); });
        test::Gate never;
        start();
        add([this, end = test::atEnd([] { std::fputs("freed", stderr); })] {
            worker.reset();
            return Executable::SUCCESS;
        });
        never.wait();
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(process(), ::testing::KilledBySignal(SIGABRT),
                ::testing::AllOf(::testing::HasSubstr("[~TaskExecutorWorker():ERROR] Worker "
                                                      "thread join failed due to '"),
                                 ::testing::Not(::testing::HasSubstr("freed"))))
        << "nothing is freed under the running thread";
}

// --- one task

TEST_F(TaskExecutorWorkerTest, RunsWhatIsQueuedBeforeAndAfterItsStart) {
    auto const before = add(succeed());
    start();
    before->waitForCompletion();
    auto const after = add(give(Executable::FAILURE));
    after->waitForCompletion();

    EXPECT_EQ(before->getResult(), Executable::SUCCESS);
    EXPECT_EQ(after->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorWorkerTest, RunsEverythingOnOneThreadOfItsOwn) {
    std::vector<std::thread::id> threads;
    auto const note = [&threads] { threads.push_back(std::this_thread::get_id()); };
    auto const task = std::make_shared<SubmittedTask>(
        [&] {
            note();
            return threads.size() < 3 ? Executable::REPEAT : Executable::SUCCESS;
        },
        NORMAL, [&](std::shared_ptr<Task> const&) { note(); }, "work");
    start();
    queue->addTask(task);
    run([&] {
        note();
        return Executable::SUCCESS;
    });

    ASSERT_EQ(threads.size(), 5u);
    EXPECT_THAT(threads, ::testing::Each(threads.front()));
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST_F(TaskExecutorWorkerTest, CallsBackAfterTheWaiterIsReleased) {
    test::Gate waited;
    test::Gate calledBack;
    Executable::State stateThen = Executable::UNSCHEDULED;
    std::shared_ptr<TaskHandle> handle;
    handle = queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const&) {
            waited.wait();
            stateThen = handle->getState();
            calledBack.open();
        },
        "work"));
    start();

    handle->waitForCompletion();
    EXPECT_FALSE(calledBack.isOpen());
    waited.open();
    calledBack.wait();

    EXPECT_EQ(stateThen, Executable::DONE);
}

TEST_F(TaskExecutorWorkerTest, CallsBackOnceWhateverTheResult) {
    for (int const result : {1, 2, 3, 4, 0}) {
        std::atomic<int> calls{0};
        auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
            give(result), NORMAL, [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
        if (!worker) {
            start();
        }
        handle->waitForCompletion();
        run(succeed());

        EXPECT_EQ(calls, 1) << result;
        EXPECT_EQ(std::int32_t{handle->getResult()}, result);
    }
}

TEST_F(TaskExecutorWorkerTest, CallsBackAfterAnException) {
    std::atomic<int> calls{0};
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        []() -> Executable::Result { throw 42; }, NORMAL,
        [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(TaskExecutorWorkerTest, CallsBackForATaskCancelledWhileItRan) {
    std::atomic<int> calls{0};
    std::shared_ptr<TaskHandle> handle;
    handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&handle] {
            handle->cancel();
            return Executable::REPEAT;
        },
        NORMAL, [&calls](std::shared_ptr<Task> const&) { ++calls; }, "work"));
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorWorkerTest, CallsBackForATaskCancelledAsItStarts) {
    bool ran = false;
    bool calledBack = false;
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&ran] {
            ran = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "work"));
    test::LogRecorder recorder;
    recorder.onLine([&handle](test::LogLine const&) {
        if (handle->getState() == Executable::EXECUTING) {
            handle->cancel();
        }
    });
    start();
    handle->waitForCompletion();
    run(succeed());

    EXPECT_FALSE(ran);
    EXPECT_TRUE(calledBack);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    stop();
}

TEST_F(TaskExecutorWorkerTest, GoesOnAfterACallbackThatThrows) {
    test::LogRecorder recorder;
    start();
    queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [](std::shared_ptr<Task> const&) { throw std::runtime_error("callback"); }, "first"));
    queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, "second"));
    run(succeed());

    EXPECT_EQ(recorder.count("[SubmittedTask::execute():WARNING] Caught exception during running "
                             "of 'first'. (callback)"),
              1);
    EXPECT_EQ(recorder.count("[SubmittedTask::performCallback():WARNING] Caught unknown exception "
                             "during running of 'second'."),
              1);
    stop();
}

TEST_F(TaskExecutorWorkerTest, RepeatingWorkKeepsTheWorkerFromMoreUrgentTasks) {
    std::vector<std::string> order;
    int runs = 0;
    std::shared_ptr<TaskHandle> urgent;
    auto const repeating = add([&] {
        order.emplace_back("repeating");
        if (++runs == 1) {
            urgent = queue->addTask(submission(
                [&order] {
                    order.emplace_back("urgent");
                    return Executable::SUCCESS;
                },
                HIGHEST));
        }
        return runs < 4 ? Executable::REPEAT : Executable::SUCCESS;
    });
    start();
    repeating->waitForCompletion();
    urgent->waitForCompletion();

    EXPECT_THAT(order, ElementsAre("repeating", "repeating", "repeating", "repeating", "urgent"));
}

TEST_F(TaskExecutorWorkerTest, LetsTheTaskGoBeforeItFetchesTheNext) {
    std::atomic<bool> nextWasQueued{false};
    auto* const raw = queue.get();
    add([end = test::atEnd([&nextWasQueued, raw] { nextWasQueued = !raw->isEmpty(); })] {
        return Executable::SUCCESS;
    });
    auto const next = add(succeed());
    start();
    next->waitForCompletion();

    EXPECT_TRUE(nextWasQueued);
}

TEST_F(TaskExecutorWorkerTest, LetsTheTaskGoWithoutWaitingForAnother) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    queue->addTask(std::move(task));
    start();

    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(TaskExecutorWorkerTest, WhatTheWorkDidIsSeenAfterTheWait) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        std::weak_ptr<SubmittedTask> watched;
        std::shared_ptr<TaskHandle> handle;
        {
            auto task = submission([&plain]() -> Executable::Result {
                plain = 1;
                throw std::runtime_error("kept");
            });
            watched = task;
            handle = queue->addTask(std::move(task));
        }
        if (round % 2 == 0) {
            // The wait then finds the task gone.
            test::yieldUntil([&watched] { return watched.expired(); });
        }
        handle->waitForCompletion();

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

TEST_F(TaskExecutorWorkerTest, WhatTheWorkDidIsSeenOnceTheStateIsDone) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        auto const handle = add([&plain]() -> Executable::Result {
            plain = 1;
            throw std::runtime_error("kept");
        });

        test::yieldUntil([&handle] { return handle->getState() == Executable::DONE; });

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

TEST_F(TaskExecutorWorkerTest, WhatCancelledWorkDidIsSeenAfterTheWait) {
    start();
    for (int round = 0; round < test::scaled(2000); ++round) {
        int plain = 0;
        test::Gate entered;
        std::atomic<bool> cancelled{false};
        std::weak_ptr<SubmittedTask> watched;
        std::shared_ptr<TaskHandle> handle;
        {
            auto task = submission([&]() -> Executable::Result {
                entered.open();
                test::yieldUntil([&] { return cancelled.load(std::memory_order_relaxed); });
                plain = 1;
                throw std::runtime_error("kept");
            });
            watched = task;
            handle = queue->addTask(std::move(task));
        }
        entered.wait();
        handle->cancel();
        cancelled.store(true, std::memory_order_relaxed);
        test::yieldUntil([&watched] { return watched.expired(); });
        handle->waitForCompletion();

        ASSERT_EQ(plain, 1);
        ASSERT_NE(handle->getException(), nullptr);
        ASSERT_EQ(handle->getState(), Executable::CANCELLED);
        ASSERT_EQ(handle->getResult(), Executable::FAILURE);
    }
}

// --- cancelled tasks

TEST_F(TaskExecutorWorkerTest, CancelledBeforeStartNeverRuns) {
    std::atomic<bool> ran{false};
    std::atomic<bool> calledBack{false};
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        [&ran] {
            ran = true;
            return Executable::SUCCESS;
        },
        NORMAL, [&calledBack](std::shared_ptr<Task> const&) { calledBack = true; }, "work"));
    handle->cancel();
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    test::LogRecorder recorder;
    start();

    handle->waitForCompletion();
    run(succeed());

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_FALSE(ran);
    EXPECT_FALSE(calledBack);
    EXPECT_EQ(recorder.count("[SubmittedTask::execute():INFO] Moving current task 'work' into "
                             "EXECUTING state."),
              1)
        << "that of the second task";
    stop();
}

TEST_F(TaskExecutorWorkerTest, CancelledTaskCompletesItsFuture) {
    auto const task = submission();
    auto future = task->getFuture();
    queue->addTask(task)->cancel();
    start();

    EXPECT_TRUE(future.get());
    EXPECT_EQ(task->getResult(), Executable::ABORTED);
}

TEST_F(TaskExecutorWorkerTest, CancelledTaskGetsItsResultBeforeItsWaiterIsReleased) {
    class Observed : public SubmittedTask {
    public:
        Observed() : SubmittedTask(succeed(), NORMAL, Callback(), "observed") {}
        void setState(Executable::State newState) override {
            events.push_back(std::string("state ") + taskStateToName(newState));
            SubmittedTask::setState(newState);
        }
        void setResult(Executable::Result newResult) override {
            events.push_back("result " + std::to_string(newResult));
            released = future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            SubmittedTask::setResult(newResult);
        }
        std::vector<std::string> events;
        std::future<bool> future = getFuture();
        bool released = true;
    };
    auto const task = std::make_shared<Observed>();
    queue->addTask(task)->cancel();
    start();
    task->future.wait();

    EXPECT_THAT(task->events, ElementsAre("state CANCELLED", "result 4"));
    EXPECT_FALSE(task->released);
}

TEST_F(TaskExecutorWorkerTest, SkippedTaskIsHeldUntilTheNextIsFetched) {
    std::atomic<bool> nextWasFetched{false};
    auto* const raw = queue.get();
    add([end = test::atEnd([&nextWasFetched, raw] { nextWasFetched = raw->isEmpty(); })] {
        return Executable::SUCCESS;
    })->cancel();
    auto const next = add(succeed());
    start();
    next->waitForCompletion();

    EXPECT_TRUE(nextWasFetched);
}

TEST_F(TaskExecutorWorkerTest, SkippedTaskIsReleasedByAnEmptyFetch) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    queue->addTask(std::move(task))->cancel();
    start();

    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_TRUE(queue->isEmpty());
}

TEST_F(TaskExecutorWorkerTest, SkippedTaskIsHeldByAWorkerThatFetchesNoMore) {
    class Terminating : public SubmittedTask {
    public:
        Terminating() : SubmittedTask(succeed(), NORMAL, Callback(), "terminating") {}
        void setResult(Executable::Result newResult) override {
            SubmittedTask::setResult(newResult);
            worker->terminate();
        }
        TaskExecutorWorker* worker = nullptr;
    };
    auto const task = std::make_shared<Terminating>();
    {
        TaskExecutorWorker idle(queue);
        task->worker = &idle;
        queue->addTask(task)->cancel();

        idle.run();

        EXPECT_EQ(task.use_count(), 2);
    }
    EXPECT_EQ(task.use_count(), 1);
}

// Stops the worker while it settles a cancelled task.
class SettlingTask : public SubmittedTask {
public:
    SettlingTask() : SubmittedTask(succeed(), NORMAL, Callback(), "settling") {}
    void setResult(Executable::Result newResult) override {
        ++settled;
        SubmittedTask::setResult(newResult);
        entered.open();
        release.wait();
    }
    std::atomic<int> settled{0};
    test::Gate entered;
    test::Gate release;
};

TEST_F(TaskExecutorWorkerTest, SkippedTaskIsReleasedWhenTheQueueIsGone) {
    test::LogRecorder recorder;
    auto task = std::make_shared<SettlingTask>();
    std::weak_ptr<SettlingTask> const watched = task;
    auto* const raw = task.get();
    auto const handle = queue->addTask(task);
    auto future = task->getFuture();
    handle->cancel();
    start();
    raw->entered.wait();
    std::weak_ptr<SubmittedTasksQueue> const watchedQueue = queue;
    queue.reset();
    EXPECT_TRUE(watchedQueue.expired());

    task->release.open();
    EXPECT_TRUE(future.get());
    task.reset();
    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_EQ(recorder.count(TERMINATING), 0) << "it waits to be terminated";
    worker->terminate();
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_EQ(recorder.count(TERMINATING), 1);
    worker.reset();
}

TEST_F(TaskExecutorWorkerTest, SkippedTaskIsSettledOnceWhenTheQueueIsGone) {
    auto const task = std::make_shared<SettlingTask>();
    queue->addTask(task)->cancel();
    start();
    task->entered.wait();
    queue.reset();
    task->release.open();

    test::yieldUntil([&task] { return task.use_count() == 1; });

    EXPECT_EQ(task->settled, 1);
}

TEST_F(TaskExecutorWorkerTest, WithoutAQueueWaitsToBeTerminated) {
    test::LogRecorder recorder;
    TaskExecutorWorker orphan(nullptr);
    orphan.start();
    recorder.waitFor(STARTING);

    orphan.terminate();

    EXPECT_THAT(recorder.texts(), ElementsAre(STARTING, TERMINATING));
}

// --- the name of the thread

TEST_F(TaskExecutorWorkerTest, NamesItsThreadAfterTheTask) {
    std::string inWork;
    std::string inCallback;
    queue->addTask(std::make_shared<SubmittedTask>(
        [&inWork] {
            inWork = threadName();
            return Executable::SUCCESS;
        },
        NORMAL, [&inCallback](std::shared_ptr<Task> const&) { inCallback = threadName(); },
        "sync"));
    start();
    run(succeed());

    EXPECT_EQ(inWork, "sync");
    EXPECT_EQ(inCallback, "sync");
}

TEST_F(TaskExecutorWorkerTest, NamesItsThreadBeforeTheTaskIsExecuting) {
    class Observed : public SubmittedTask {
    public:
        Observed() : SubmittedTask(succeed(), NORMAL, Callback(), "observed") {}
        void setState(Executable::State newState) override {
            if (newState == Executable::EXECUTING) {
                nameThen = threadName();
            }
            SubmittedTask::setState(newState);
        }
        std::string nameThen;
    };
    auto const task = std::make_shared<Observed>();
    auto const handle = queue->addTask(task);
    start();
    handle->waitForCompletion();

    EXPECT_EQ(task->nameThen, "observed");
}

TEST_F(TaskExecutorWorkerTest, KeepsTheNameAfterTheTask) {
    pthread_t thread = {};
    auto task = submission(
        [&thread] {
            thread = pthread_self();
            return Executable::SUCCESS;
        },
        NORMAL, "lasting");
    std::weak_ptr<SubmittedTask> const watched = task;
    auto const handle = queue->addTask(std::move(task));
    start();
    handle->waitForCompletion();
    test::yieldUntil([&watched] { return watched.expired(); });

    EXPECT_EQ(threadName(thread), "lasting");
}

struct ThreadNameCase {
    char const* taskName;
    char const* threadName;
};

void PrintTo(ThreadNameCase const& row, std::ostream* out) {
    std::string const name = row.taskName != nullptr ? row.taskName : "null";
    *out << (name.empty() ? "empty" : name);
}

class ThreadNameTest : public TaskExecutorWorkerTest,
                       public ::testing::WithParamInterface<ThreadNameCase> {};

TEST_P(ThreadNameTest, FollowsFromTheNameOfTheTask) {
    std::string name;
    start();
    run(succeed(), "before");
    run(
        [&name] {
            name = threadName();
            return Executable::SUCCESS;
        },
        GetParam().taskName);

    EXPECT_EQ(name, GetParam().threadName);
}

// 15 characters are the platform's limit; a longer name is not applied at all.
INSTANTIATE_TEST_SUITE_P(TaskExecutorWorkerTest, ThreadNameTest,
                         ::testing::Values(ThreadNameCase{"a", "a"}, ThreadNameCase{"", ""},
                                           ThreadNameCase{"123456789012345", "123456789012345"},
                                           ThreadNameCase{"1234567890123456", "before"},
                                           ThreadNameCase{nullptr, "unnamed"}));

TEST_F(TaskExecutorWorkerTest, SkippedTaskDoesNotNameTheThread) {
    std::string name;
    start();
    run(succeed(), "before");
    Work const note = [&name] {
        name = threadName();
        return Executable::SUCCESS;
    };
    test::Gate entered;
    test::Gate release;
    add(
        [&] {
            entered.open();
            release.wait();
            return Executable::SUCCESS;
        },
        "before");
    entered.wait();
    add(succeed(), "skipped")->cancel();
    auto const last = add(note, "a name beyond the limit");
    release.open();
    last->waitForCompletion();

    EXPECT_EQ(name, "before");
}

TEST_F(TaskExecutorWorkerTest, NullTaskNamesTheThreadAndHoldsItUntilCancelled) {
    test::LogRecorder recorder;
    std::string name;
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        std::shared_ptr<Task>(), NORMAL, [&name](std::shared_ptr<Task> const& task) {
            EXPECT_EQ(task, nullptr);
            name = threadName();
        }));
    auto const next = add(succeed());
    start();
    recorder.waitFor(
        "[SubmittedTask::execute():INFO] Moving current task 'Null Task' into "
        "EXECUTING state.");
    EXPECT_EQ(next->getState(), Executable::UNSCHEDULED);

    handle->cancel();
    handle->waitForCompletion();
    next->waitForCompletion();

    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_EQ(name, "Null Task");
    stop();
}

// --- what leaves the thread

TEST_F(TaskExecutorWorkerTest, WorkMayEndItsThread) {
    test::LogRecorder recorder;
    test::Gate entered;
    auto const handle = add(
        [&entered]() -> Executable::Result {
            entered.open();
            pthread_exit(nullptr);
        },
        "leaving");
    start();
    entered.wait();
    worker->terminate();

    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_THAT(recorder.texts(),
                ElementsAre(STARTING,
                            "[SubmittedTask::execute():INFO] Moving current task 'leaving' into "
                            "EXECUTING state."));
}

TEST_F(TaskExecutorWorkerTest, CallbackMayEndItsThread) {
    test::LogRecorder recorder;
    test::Gate entered;
    auto const handle = queue->addTask(std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [&entered](std::shared_ptr<Task> const&) {
            entered.open();
            pthread_exit(nullptr);
        },
        "leaving"));
    start();
    entered.wait();
    worker->terminate();

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_EQ(recorder.texts().back(),
              "[SubmittedTask::execute():INFO] Moving current task 'leaving' into DONE state.");
}

TEST_F(TaskExecutorWorkerTest, ThreadCanBeCancelledInsideWork) {
    test::Gate entered;
    std::atomic<bool> unwound{false};
    pthread_t thread = {};
    auto const handle = add([&]() -> Executable::Result {
        auto const end = test::atEnd([&unwound] { unwound = true; });
        thread = pthread_self();
        entered.open();
        for (;;) {
            pthread_testcancel();
        }
    });
    start();
    entered.wait();
    ASSERT_EQ(pthread_cancel(thread), 0);
    worker->terminate();

    EXPECT_TRUE(unwound);
    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(handle->getException(), nullptr);
}

TEST_F(TaskExecutorWorkerTest, ExceptionOutOfAnOverriddenOperationEndsTheProcess) {
    class Throwing : public SubmittedTask {
    public:
        Throwing() : SubmittedTask(succeed(), NORMAL, Callback(), "throwing") {}
        void setState(Executable::State) override { throw std::runtime_error("no state"); }
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            start();
            queue->addTask(std::make_shared<Throwing>())->waitForCompletion();
        },
        ::testing::KilledBySignal(SIGABRT), "no state");
}

TEST_F(TaskExecutorWorkerTest, ExceptionOutOfAStrategyEndsTheProcess) {
    class Throwing : public TaskRankingStrategy {
    public:
        void updateRank(SubmittedTask*) override { throw std::runtime_error("no rank"); }
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            queue = makeQueue<Throwing>();
            start();
            run(succeed());
        },
        ::testing::KilledBySignal(SIGABRT), "no rank");
}

TEST_F(TaskExecutorWorkerTest, ExceptionOutOfANameEndsTheProcess) {
    class Throwing : public NamedTask {
    public:
        char const* name() const override { throw std::runtime_error("no name"); }
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            start();
            queue
                ->addTask(std::make_shared<SubmittedTask>(std::make_shared<Throwing>(), NORMAL,
                                                          Callback()))
                ->waitForCompletion();
        },
        ::testing::KilledBySignal(SIGABRT), "no name");
}

TEST_F(TaskExecutorWorkerTest, RunningOneSubmissionTwiceEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            PrintedErrors const errors;
            start();
            auto const task = submission();
            queue->addTask(task)->waitForCompletion();
            queue->addTask(task);
            test::Gate().wait();
        },
        ::testing::KilledBySignal(SIGABRT),
        "SubmittedTask::setPromiseValue\\(\\):ERROR\\] (.|\n)*[Pp]romise already satisfied");
}

TEST_F(TaskExecutorWorkerTest, OnlyItsDestructorIsVirtual) {
    EXPECT_EQ(test::virtualSlotCount("TaskExecutorWorker"), 2u);
}

}  // namespace
}  // namespace ovra::concurrent
