#include <ovra/concurrent/TaskExecutorWorker.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerLog.h>
#include <tests/concurrent/WorkerTest.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<TaskExecutorWorker>);
static_assert(!std::is_copy_constructible_v<TaskExecutorWorker>);

// What joining a thread that was never started has to say.
std::string joinFailure() {
    try {
        std::thread().join();
    } catch (std::system_error const& e) {
        return e.what();
    }
    return "";
}

using TaskExecutorWorkerTest = WorkerTest;

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

TEST_F(TaskExecutorWorkerTest, RunCanBeCalledOnAThreadOfTheApplication) {
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

TEST_F(TaskExecutorWorkerTest, OnlyItsDestructorIsVirtual) {
    EXPECT_EQ(test::virtualSlotCount("TaskExecutorWorker"), 2u);
}

}  // namespace
}  // namespace ovra::concurrent
