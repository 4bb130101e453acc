#include <ovra/extra/ScheduledTasks.h>

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::extra {
namespace {

using concurrent::Callback;
using concurrent::Executable;
using concurrent::NORMAL;
using concurrent::succeed;
using concurrent::Task;
using concurrent::TaskHandle;
using ovra::test::Gate;
using ovra::test::ThreadCalls;
using std::chrono::hours;
using std::chrono::milliseconds;
using test::RecordingExecutor;
using ::testing::ElementsAre;

class ScheduledTasksTest : public concurrent::ExecutorTest {};

// Calls back on the thread that submits.
struct Direct : RecordingExecutor {
    std::shared_ptr<TaskHandle> submitTask(std::shared_ptr<Task> const& given,
                                           concurrent::TaskPriority givenPriority,
                                           Callback const& givenCallback) override {
        task = given;
        priority = givenPriority;
        onSubmission();
        givenCallback(given);
        return std::make_shared<TaskHandle>(nullptr);
    }
    using RecordingExecutor::submitTask;
    std::function<void()> onSubmission;
};

TEST_F(ScheduledTasksTest, RunsFunctionsOnTheExecutor) {
    Gate once;
    Gate often(3);
    ScheduledTasks scheduled(makeExecutor(1));  // Ends the executor before the gates.
    auto const open = [](Gate& gate) {
        return [&gate] {
            gate.open();
            return Executable::SUCCESS;
        };
    };
    EXPECT_EQ(scheduled.after(milliseconds(0), open(once), NORMAL, "once"), 1u);
    EXPECT_EQ(scheduled.every(milliseconds(1), open(often), NORMAL, nullptr), 2u);
    once.wait();
    often.wait();
    EXPECT_TRUE(scheduled.cancel(2));
    EXPECT_FALSE(scheduled.cancel(2));
    EXPECT_FALSE(scheduled.cancel(1));
}

TEST_F(ScheduledTasksTest, PassesPriorityFunctionAndACopyOfTheName) {
    auto const direct = std::make_shared<Direct>();
    Gate submitted;
    direct->onSubmission = [&] { submitted.open(); };
    ScheduledTasks scheduled(direct);
    char name[] = "name";
    scheduled.after(milliseconds(0), concurrent::give(77), concurrent::HIGH, name);
    name[0] = 'X';
    submitted.wait();
    EXPECT_STREQ(direct->task->name(), "name");
    EXPECT_EQ(direct->task->execute(), 77);
    EXPECT_EQ(direct->priority, concurrent::HIGH);
    Gate again;
    direct->onSubmission = [&] { again.open(); };
    scheduled.after(milliseconds(-1), succeed(), NORMAL, nullptr);
    again.wait();
    EXPECT_EQ(direct->task->name(), nullptr);
}

TEST_F(ScheduledTasksTest, NothingIsSubmittedBeforeItsTime) {
    auto const direct = std::make_shared<Direct>();
    std::vector<std::string> submitted;
    Gate now;
    direct->onSubmission = [&] {
        submitted.emplace_back(direct->task->name());
        if (submitted.back() == "now") {
            now.open();
        }
    };
    ScheduledTasks scheduled(direct);
    scheduled.every(hours(1), succeed(), NORMAL, "after one period");
    scheduled.after(hours(1), succeed(), NORMAL, "after the delay");
    // Whatever was due at its own submission would come before this.
    scheduled.after(milliseconds(0), succeed(), NORMAL, "now");
    now.wait();
    EXPECT_THAT(submitted, ElementsAre("now"));
}

TEST_F(ScheduledTasksTest, RefusesWhatCannotBeScheduled) {
    auto const executor = makeExecutor(1);
    ScheduledTasks scheduled(executor);
    EXPECT_EQ(scheduled.after(milliseconds(0), {}, NORMAL, "name"), 0u);
    EXPECT_EQ(scheduled.every(milliseconds(1), {}, NORMAL, "name"), 0u);
    EXPECT_EQ(scheduled.every(milliseconds(0), succeed(), NORMAL, "name"), 0u);
    EXPECT_EQ(scheduled.every(milliseconds::min(), succeed(), NORMAL, "name"), 0u);
    EXPECT_FALSE(scheduled.cancel(0));
    ScheduledTasks none(nullptr);
    EXPECT_EQ(none.after(milliseconds(0), succeed(), NORMAL, "name"), 0u);
    EXPECT_EQ(none.every(milliseconds(1), succeed(), NORMAL, "name"), 0u);
    EXPECT_FALSE(none.cancel(1));
}

TEST_F(ScheduledTasksTest, TheThreadStartsWithTheFirstScheduleAndBlocksAllSignals) {
    int started = 0;
    ThreadCalls calls;
    calls.onCreate = [&] {
        ++started;
        return 0;
    };
    calls.install();
    auto const direct = std::make_shared<Direct>();
    Gate submitted;
    sigset_t blocked;
    char name[16] = "";
    direct->onSubmission = [&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        pthread_getname_np(pthread_self(), name, sizeof name);
        submitted.open();
    };
    ScheduledTasks scheduled(direct);
    EXPECT_EQ(started, 0);
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    scheduled.after(milliseconds(0), succeed(), NORMAL, nullptr);
    scheduled.after(hours(1), succeed(), NORMAL, nullptr);
    EXPECT_EQ(started, 1);
    submitted.wait();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    // An emulator keeps the last signals to itself.
    for (int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM, SIGSEGV, SIGRTMIN}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
    EXPECT_STREQ(name, "ovra-scheduled");
}

TEST_F(ScheduledTasksTest, WithoutAThreadThereIsNoSchedule) {
    ThreadCalls calls;
    bool fails = true;
    calls.onCreate = [&] { return fails ? EAGAIN : 0; };
    auto const executor = makeExecutor(1);
    calls.install();
    ScheduledTasks scheduled(executor);
    auto const held = std::make_shared<int>(1);
    errno = 123;
    EXPECT_EQ(scheduled.after(
                  hours(1), [copy = held] { return Executable::SUCCESS; }, NORMAL, "name"),
              0u);
    EXPECT_EQ(errno, 123);
    EXPECT_EQ(held.use_count(), 1);
    fails = false;
    EXPECT_EQ(scheduled.after(hours(1), succeed(), NORMAL, "name"), 1u);
}

TEST_F(ScheduledTasksTest, ALackOfMemoryChangesNothing) {
    auto const executor = makeExecutor(1);
    ScheduledTasks scheduled(executor);
    scheduled.after(hours(1), succeed(), NORMAL, nullptr);
    int failures = 0;
    for (bool isDone = false; !isDone; ++failures) {
        int left = failures;
        ThreadCalls calls;
        auto const caller = std::this_thread::get_id();
        calls.onAllocate = [&](std::size_t) {
            return std::this_thread::get_id() == caller && left-- == 0;
        };
        calls.install();
        try {
            EXPECT_EQ(scheduled.every(hours(1), succeed(), NORMAL,
                                      "a name that is too long to need no memory"),
                      2u);
            isDone = true;
        } catch (std::bad_alloc const&) {
            EXPECT_FALSE(scheduled.cancel(2));
        }
        ASSERT_LT(failures, 50);
    }
    EXPECT_GT(failures, 2);
    EXPECT_TRUE(scheduled.cancel(2));
}

TEST_F(ScheduledTasksTest, MayBeDestroyedInATaskOfItsOwn) {
    auto const executor = makeExecutor(1);
    auto scheduled = std::make_unique<ScheduledTasks>(executor);
    Gate made;
    Gate destroyed;
    scheduled->every(
        milliseconds(1),
        [&] {
            made.wait();
            if (scheduled) {
                scheduled.reset();
                destroyed.open();
            }
            return Executable::SUCCESS;
        },
        NORMAL, "last");
    made.open();
    destroyed.wait();
}

// Nobody can join the thread then. It gives its memory back itself.
TEST_F(ScheduledTasksTest, MayBeDestroyedOnItsOwnThread) {
    std::atomic<bool> isDetached{false};
    ThreadCalls calls;
    calls.onDetach = [&](pthread_t thread) {
        isDetached = pthread_equal(thread, pthread_self()) != 0;
    };
    calls.install();
    auto const direct = std::make_shared<Direct>();
    auto scheduled = std::make_unique<ScheduledTasks>(direct);
    Gate made;
    Gate destroyed;
    direct->onSubmission = [&] {
        made.wait();
        scheduled.reset();
        destroyed.open();
    };
    scheduled->every(milliseconds(1), succeed(), NORMAL, "last");
    made.open();
    destroyed.wait();
    ovra::test::yieldUntil([&] { return direct.use_count() == 1; });
    EXPECT_TRUE(isDetached);
}

TEST_F(ScheduledTasksTest, TheDestructorWaitsForNoTask) {
    auto const executor = makeExecutor(1);
    Gate entered;
    Gate released;
    Gate ended;
    {
        ScheduledTasks scheduled(executor);
        scheduled.after(
            milliseconds(0),
            [&] {
                entered.open();
                released.wait();
                ended.open();
                return Executable::SUCCESS;
            },
            NORMAL, "long");
        entered.wait();
    }
    released.open();
    ended.wait();
}

TEST_F(ScheduledTasksTest, HoldsTheExecutorUntilItDies) {
    auto executor = std::make_shared<test::ManualExecutor>();
    std::weak_ptr<test::ManualExecutor> const seen = executor;
    auto scheduled = std::make_unique<ScheduledTasks>(std::move(executor));
    scheduled->after(milliseconds(0), succeed(), NORMAL, nullptr);
    EXPECT_FALSE(seen.expired());
    ovra::test::yieldUntil([&] { return !seen.lock()->isIdle(); });
    scheduled.reset();
    EXPECT_TRUE(seen.expired());
}

TEST_F(ScheduledTasksTest, KeepsErrno) {
    errno = 123;
    {
        ScheduledTasks scheduled(makeExecutor(0));
        auto const id = scheduled.every(hours(1), succeed(), NORMAL, "name");
        scheduled.after(milliseconds(0), succeed(), NORMAL, "name");
        scheduled.cancel(id);
        auto const spoiling = ovra::test::atEnd([] { errno = EIO; });
        scheduled.after(
            hours(1), [spoiling] { return Executable::SUCCESS; }, NORMAL, "destroyed here");
        errno = 123;
    }
    EXPECT_EQ(errno, 123);
}

TEST_F(ScheduledTasksTest, IsRefusedInAForkedProcessAndJoinsNothingThere) {
    auto const executor = makeExecutor(1);
    auto* const scheduled = new ScheduledTasks(executor);
    auto const id = scheduled->every(hours(1), succeed(), NORMAL, "name");
    auto* const unused = new ScheduledTasks(executor);
    pid_t const child = fork();
    if (child == 0) {
        alarm(60);
        int failures = scheduled->after(milliseconds(0), succeed(), NORMAL, "name") == 0 ? 0 : 1;
        failures += scheduled->cancel(id) ? 2 : 0;
        delete scheduled;
        delete unused;
        _exit(failures);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(scheduled->cancel(id));
    delete scheduled;
    delete unused;
}

using ScheduledTasksDeathTest = ScheduledTasksTest;

TEST_F(ScheduledTasksDeathTest, MayBeAStaticAtExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static Gate ran(3);
            static ScheduledTasks scheduled(concurrent::getNoStarveTaskExecutor());
            scheduled.every(
                milliseconds(1),
                [] {
                    ran.open();
                    return Executable::SUCCESS;
                },
                NORMAL, "tick");
            ran.wait();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ovra::extra
