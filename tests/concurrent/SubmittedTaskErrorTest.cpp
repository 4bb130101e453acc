#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ObservedTask.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SubmittedTaskErrorTest : public test::BoundedTest {};

// --- exceptions

// More than its base class could carry through a copy of that base.
class NumberedError : public std::runtime_error {
public:
    explicit NumberedError(int ownNumber) : std::runtime_error("numbered"), number(ownNumber) {}
    int number;
};

TEST_F(SubmittedTaskErrorTest, ExceptionOfTheWorkIsAFailure) {
    test::LogRecorder recorder;
    auto const thrown = std::make_exception_ptr(NumberedError(7));
    auto const task = submission(
        [&thrown]() -> Executable::Result { std::rethrow_exception(thrown); }, NORMAL, "sync");
    auto const handle = linkHandle(task);
    auto future = task->getFuture();

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_EQ(handle->getException(), thrown) << "not the very exception";
    EXPECT_TRUE(future.get());
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "EXECUTING"), log::INFO},
                            test::LogLine{caughtLine("sync", "numbered"), log::WARNING},
                            test::LogLine{movingLine("sync", "DONE"), log::INFO}));
}

TEST_F(SubmittedTaskErrorTest, AnythingElseThrownIsAnUnknownException) {
    test::LogRecorder recorder;
    auto const task = submission([]() -> Executable::Result { throw 42; }, NORMAL, "sync");
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "EXECUTING"), log::INFO},
                            test::LogLine{caughtLine("sync", "Unknown exception"), log::WARNING},
                            test::LogLine{movingLine("sync", "DONE"), log::INFO}));
    ASSERT_NE(handle->getException(), nullptr);
    try {
        std::rethrow_exception(handle->getException());
    } catch (std::exception const& e) {
        EXPECT_EQ(typeid(e), typeid(std::runtime_error));
        EXPECT_STREQ(e.what(), "Unknown exception");
    }
}

TEST_F(SubmittedTaskErrorTest, EmptyFunctionIsAFailure) {
    test::LogRecorder recorder;
    auto const task = submission(Work(), NORMAL, "empty");
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(recorder.count(caughtLine("empty", std::bad_function_call().what())), 1);
    ASSERT_NE(handle->getException(), nullptr);
    EXPECT_THROW(std::rethrow_exception(handle->getException()), std::bad_function_call);
}

TEST_F(SubmittedTaskErrorTest, ExceptionOfNamelessWorkIsLoggedWithoutItsName) {
    test::LogRecorder recorder;
    auto const task = submission([]() -> Executable::Result { throw std::runtime_error("lost"); },
                                 NORMAL, nullptr);

    task->execute();

    EXPECT_EQ(recorder.count(caughtLine("(null)", "lost")), 1);
}

TEST_F(SubmittedTaskErrorTest, ExceptionEndsRepetition) {
    int runs = 0;
    auto const task = submission([&runs]() -> Executable::Result {
        if (++runs == 2) {
            throw std::runtime_error("second run");
        }
        return Executable::REPEAT;
    });

    EXPECT_EQ(task->execute(), Executable::FAILURE);
    EXPECT_EQ(runs, 2);
}

TEST_F(SubmittedTaskErrorTest, ExceptionAfterACancellationIsAFailureOfACancelledTask) {
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&running]() -> Executable::Result {
        running.lock()->setState(Executable::CANCELLED);
        throw std::runtime_error("too late");
    });
    running = task;
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_NE(handle->getException(), nullptr);
}

TEST_F(SubmittedTaskErrorTest, ExceptionReachesTheHandleBeforeTheResult) {
    auto const task = std::make_shared<ObservedTask>(Work());
    auto const handle = linkHandle(task);
    bool looked = false;
    task->beforeResult = [&](Executable::Result) {
        looked = true;
        EXPECT_NE(handle->getException(), nullptr);
    };

    task->execute();

    EXPECT_TRUE(looked);
}

TEST_F(SubmittedTaskErrorTest, ExceptionWithoutAHandleIsOnlyLogged) {
    test::LogRecorder recorder;
    auto const task = submission(Work(), NORMAL, "alone");
    linkHandle(task).reset();

    EXPECT_EQ(task->execute(), Executable::FAILURE);
    EXPECT_EQ(recorder.count(caughtLine("alone", std::bad_function_call().what())), 1);
}

TEST_F(SubmittedTaskErrorTest, HandlingAnExceptionForwardsItWhenAskedTo) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);
    auto const e = std::make_exception_ptr(std::logic_error("why"));
    recorder.onLine([&handle](test::LogLine const&) {
        EXPECT_EQ(handle->getException(), nullptr) << "forwarded before it is logged";
    });

    task->handleAndLogUnknownException(e, true);

    EXPECT_EQ(handle->getException(), e);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{caughtLine("work", "why"), log::WARNING}));
}

TEST_F(SubmittedTaskErrorTest, HandlingAnExceptionOnlyLogsItOtherwise) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->handleAndLogUnknownException(std::make_exception_ptr(std::logic_error("why")), false);
    task->handleAndLogUnknownException(nullptr, false);

    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_THAT(recorder.texts(),
                ElementsAre(caughtLine("work", "why"), caughtLine("work", "Unknown exception")));
}

TEST_F(SubmittedTaskErrorTest, HandlingNoExceptionForwardsAnUnknownOne) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->handleAndLogUnknownException(nullptr, true);

    ASSERT_NE(handle->getException(), nullptr);
    EXPECT_THROW(std::rethrow_exception(handle->getException()), std::runtime_error);
}

TEST_F(SubmittedTaskErrorTest, HandlingWhatIsNoStandardExceptionLetsItOut) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    EXPECT_THROW(task->handleAndLogUnknownException(std::make_exception_ptr(42), true), int);

    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

// --- callback

TEST_F(SubmittedTaskErrorTest, CallbackGetsTheTask) {
    std::vector<std::shared_ptr<Task>> seen;
    auto const work = std::make_shared<NamedTask>();
    SubmittedTask task(work, NORMAL,
                       [&seen](std::shared_ptr<Task> given) { seen.push_back(std::move(given)); });

    task.execute();
    EXPECT_THAT(seen, IsEmpty());
    task.performCallback();

    EXPECT_THAT(seen, ElementsAre(work));
}

TEST_F(SubmittedTaskErrorTest, CallbackOfAFunctionGetsATaskOfItsName) {
    char const name[] = "function";
    char const* seen = nullptr;
    SubmittedTask task(
        succeed(), NORMAL, [&seen](std::shared_ptr<Task> const& given) { seen = given->name(); },
        name);

    task.performCallback();

    EXPECT_EQ(seen, name);
}

TEST_F(SubmittedTaskErrorTest, CallbackOfANullTaskGetsNull) {
    bool called = false;
    SubmittedTask task(std::shared_ptr<Task>(), NORMAL,
                       [&called](std::shared_ptr<Task> const& given) {
                           called = true;
                           EXPECT_EQ(given, nullptr);
                       });

    task.performCallback();

    EXPECT_TRUE(called);
}

TEST_F(SubmittedTaskErrorTest, NoCallbackIsNothingToDo) {
    test::LogRecorder recorder;
    auto const task = submission();

    task->performCallback();

    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(SubmittedTaskErrorTest, CallbackRunsWithoutTheLock) {
    std::weak_ptr<SubmittedTask> running;
    bool called = false;
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const&) {
            called = true;
            running.lock()->setState(Executable::READY);
        },
        "work");
    running = task;

    task->performCallback();

    EXPECT_TRUE(called);
    EXPECT_EQ(task->getState(), Executable::READY);
}

TEST_F(SubmittedTaskErrorTest, ExceptionOfTheCallbackIsLoggedAndChangesNothing) {
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw std::runtime_error("late"); },
        "sync");
    auto const handle = linkHandle(task);
    task->execute();
    test::LogRecorder recorder;

    task->performCallback();

    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{caughtLine("sync", "late"), log::WARNING}));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(task->getResult(), Executable::SUCCESS);
}

TEST_F(SubmittedTaskErrorTest, AnythingElseThrownByTheCallbackIsLoggedAndChangesNothing) {
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, "sync");
    auto const handle = linkHandle(task);
    task->execute();
    test::LogRecorder recorder;

    task->performCallback();

    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{"[SubmittedTask::performCallback():WARNING] Caught "
                                          "unknown exception during running of 'sync'.",
                                          log::WARNING}));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(SubmittedTaskErrorTest, ExceptionsOfACallbackWithoutANameAreLogged) {
    test::LogRecorder recorder;
    SubmittedTask unknown(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, nullptr);
    SubmittedTask standard(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw std::bad_alloc(); }, nullptr);

    unknown.performCallback();
    standard.performCallback();

    EXPECT_THAT(recorder.texts(),
                ElementsAre("[SubmittedTask::performCallback():WARNING] Caught unknown exception "
                            "during running of '(null)'.",
                            caughtLine("(null)", "std::bad_alloc")));
}

}  // namespace
}  // namespace ovra::concurrent
