#include <ovra/concurrent/TaskExecutorWorker.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/concurrent/WorkerLog.h>
#include <tests/concurrent/WorkerTest.h>
#include <tests/support/Gate.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;

std::string threadName(pthread_t thread = pthread_self()) {
    char name[64] = "";
    EXPECT_EQ(pthread_getname_np(thread, name, sizeof name), 0);
    return name;
}

using TaskExecutorWorkerThreadTest = WorkerTest;

// --- the name of the thread

TEST_F(TaskExecutorWorkerThreadTest, NamesItsThreadAfterTheTask) {
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

TEST_F(TaskExecutorWorkerThreadTest, NamesItsThreadBeforeTheTaskIsExecuting) {
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

TEST_F(TaskExecutorWorkerThreadTest, KeepsTheNameAfterTheTask) {
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

class ThreadNameTest : public WorkerTest, public ::testing::WithParamInterface<ThreadNameCase> {};

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
INSTANTIATE_TEST_SUITE_P(TaskExecutorWorkerThreadTest, ThreadNameTest,
                         ::testing::Values(ThreadNameCase{"a", "a"}, ThreadNameCase{"", ""},
                                           ThreadNameCase{"123456789012345", "123456789012345"},
                                           ThreadNameCase{"1234567890123456", "before"},
                                           ThreadNameCase{nullptr, "unnamed"}));

TEST_F(TaskExecutorWorkerThreadTest, SkippedTaskDoesNotNameTheThread) {
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

TEST_F(TaskExecutorWorkerThreadTest, NullTaskNamesTheThreadAndHoldsItUntilCancelled) {
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

TEST_F(TaskExecutorWorkerThreadTest, WorkMayEndItsThread) {
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

TEST_F(TaskExecutorWorkerThreadTest, CallbackMayEndItsThread) {
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

TEST_F(TaskExecutorWorkerThreadTest, ThreadCanBeCancelledInsideWork) {
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

TEST_F(TaskExecutorWorkerThreadTest, ExceptionOutOfAnOverriddenOperationEndsTheProcess) {
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

TEST_F(TaskExecutorWorkerThreadTest, ExceptionOutOfAStrategyEndsTheProcess) {
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

TEST_F(TaskExecutorWorkerThreadTest, ExceptionOutOfANameEndsTheProcess) {
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

TEST_F(TaskExecutorWorkerThreadTest, RunningOneSubmissionTwiceEndsTheProcess) {
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

}  // namespace
}  // namespace ovra::concurrent
