#include <ovra/extra/MonitoredExecutor.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/MonitorSupport.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/Gate.h>
#include <tests/support/RandomSource.h>
#include <tests/support/SteadyClock.h>

namespace ovra::extra {
namespace {

using concurrent::Callback;
using concurrent::Executable;
using concurrent::give;
using concurrent::NamedTask;
using concurrent::NORMAL;
using concurrent::succeed;
using concurrent::Task;
using concurrent::TaskHandle;
using ovra::test::clockMs;
using ovra::test::Gate;
using test::ManualExecutor;
using test::RecordingExecutor;
using test::written;

class MonitoredExecutorTest : public concurrent::ExecutorTest {
protected:
    MonitoredExecutorTest() { clockMs = 5000; }
    ~MonitoredExecutorTest() override { clockMs = -1; }

    std::shared_ptr<ManualExecutor> const manual = std::make_shared<ManualExecutor>();
    MonitoredExecutor monitored{manual};
};

// In one line: submitted, refused, waiting, running, ended, failed, dropped; times.
std::string shown(TaskCounts const& counts) {
    std::string text;
    for (auto const count : {counts.submitted, counts.refused, counts.waiting, counts.running,
                             counts.ended, counts.failed, counts.dropped}) {
        text += std::to_string(count) + " ";
    }
    text += ";";
    for (auto const time :
         {counts.longestWait, counts.longestRun, counts.oldestWaiting, counts.oldestRunning}) {
        text += " " + std::to_string(time.count());
    }
    return text;
}

TEST_F(MonitoredExecutorTest, FollowsATaskFromItsSubmissionToTheEndOfItsCallback) {
    EXPECT_EQ(shown(monitored.counts()), "0 0 0 0 0 0 0 ; 0 0 0 0");
    std::string duringWork;
    std::string duringCallback;
    monitored.submitTask(
        [&] {
            clockMs += 20;
            duringWork = shown(monitored.counts());
            return Executable::SUCCESS;
        },
        NORMAL,
        [&](auto const&) {
            clockMs += 5;
            duringCallback = shown(monitored.counts());
        },
        "task");
    clockMs += 100;
    EXPECT_EQ(shown(monitored.counts()), "1 0 1 0 0 0 0 ; 0 0 100 0");
    manual->runNext();
    EXPECT_EQ(duringWork, "1 0 0 1 0 0 0 ; 100 0 0 20");
    EXPECT_EQ(duringCallback, "1 0 0 1 0 0 0 ; 100 0 0 25");
    EXPECT_EQ(shown(monitored.counts()), "1 0 0 0 1 0 0 ; 100 25 0 0");
    // Shorter ones change no maximum.
    monitored.submitTask(std::make_shared<NamedTask>(), NORMAL, {});
    clockMs += 7;
    manual->runNext();
    EXPECT_EQ(shown(monitored.counts()), "2 0 0 0 2 0 0 ; 100 25 0 0");
}

TEST_F(MonitoredExecutorTest, RepeatIsOneRun) {
    int calls = 0;
    monitored.submitTask(
        [&] {
            clockMs += 10;
            return ++calls < 3 ? Executable::REPEAT : Executable::SUCCESS;
        },
        NORMAL, {}, "repeating");
    manual->runNext();
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(shown(monitored.counts()), "1 0 0 0 1 0 0 ; 0 30 0 0");
}

TEST_F(MonitoredExecutorTest, FailedIsWhatHasTheResultFailure) {
    monitored.submitTask(give(Executable::FAILURE), NORMAL, {}, nullptr);
    monitored.submitTask([]() -> Executable::Result { throw 1; }, NORMAL, {}, nullptr);
    monitored.submitTask([]() -> Executable::Result { throw std::runtime_error("x"); }, NORMAL, {},
                         nullptr);
    monitored.submitTask(give(Executable::ABORTED), NORMAL, {}, nullptr);
    monitored.submitTask(
        succeed(), NORMAL, [](auto const&) { throw 1; }, nullptr);
    monitored.submitTask(
        concurrent::Work(), NORMAL, [](auto const&) {}, nullptr);
    manual->runAll();
    EXPECT_EQ(shown(monitored.counts()), "6 0 0 0 6 4 0 ; 0 0 0 0");
}

TEST_F(MonitoredExecutorTest, DroppedIsWhatLeavesTheQueueUnrun) {
    auto const cancelled = monitored.submitTask(succeed(), NORMAL, {}, nullptr);
    cancelled->cancel();
    clockMs += 50;
    EXPECT_EQ(shown(monitored.counts()), "1 0 1 0 0 0 0 ; 0 0 50 0");
    manual->runNext();
    EXPECT_EQ(shown(monitored.counts()), "1 0 0 0 0 0 1 ; 0 0 0 0");
    monitored.submitTask(succeed(), NORMAL, {}, nullptr);
    monitored.submitTask(std::make_shared<NamedTask>(), NORMAL, [](auto const&) {});
    manual->close();
    EXPECT_EQ(shown(monitored.counts()), "3 0 0 0 0 0 3 ; 0 0 0 0");
}

// A cancel that arrives while the worker starts the task.
TEST_F(MonitoredExecutorTest, ACallbackWithoutWorkIsARunThatEndsAsDropped) {
    std::string during;
    auto const recording = std::make_shared<RecordingExecutor>();
    MonitoredExecutor other(recording);
    std::shared_ptr<Task> kept;
    other.submitTask(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> given) {
            during = shown(other.counts());
            kept = std::move(given);
        },
        nullptr);
    clockMs += 30;
    recording->callback(recording->task);
    EXPECT_EQ(during, "1 0 0 1 0 0 0 ; 0 0 0 0");
    EXPECT_EQ(shown(other.counts()), "1 0 0 0 0 0 1 ; 0 0 0 0");
    EXPECT_EQ(kept->execute(), Executable::SUCCESS);  // The application's own business.
    recording->task.reset();
    kept.reset();
    EXPECT_EQ(shown(other.counts()), "1 0 0 0 0 0 1 ; 0 0 0 0");
}

TEST_F(MonitoredExecutorTest, CountsRefusalsAndNoSubmissionThatThrows) {
    auto const recording = std::make_shared<RecordingExecutor>();
    MonitoredExecutor other(recording);
    recording->refuses = true;
    EXPECT_EQ(other.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(other.submitTask(std::make_shared<NamedTask>(), NORMAL, {}), nullptr);
    EXPECT_EQ(other.submitTask(concurrent::Work(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(shown(other.counts()), "0 3 0 0 0 0 0 ; 0 0 0 0");
    EXPECT_EQ(recording->submissions, 2);
    recording->throws = true;
    EXPECT_THROW(other.submitTask(succeed(), NORMAL, {}, nullptr), std::runtime_error);
    EXPECT_EQ(shown(other.counts()), "0 3 0 0 0 0 0 ; 0 0 0 0");
}

TEST_F(MonitoredExecutorTest, ANullExecutorRefusesEverything) {
    MonitoredExecutor none(nullptr);
    EXPECT_EQ(none.submitTask(succeed(), NORMAL, {}, nullptr), nullptr);
    EXPECT_EQ(none.submitTask(std::make_shared<NamedTask>(), NORMAL, {}), nullptr);
    EXPECT_EQ(none.submitTask(std::shared_ptr<Task>(), NORMAL, [](auto const&) {}), nullptr);
    EXPECT_TRUE(none.isIdle());
    EXPECT_EQ(shown(none.counts()), "0 2 0 0 0 0 0 ; 0 0 0 0");
}

TEST_F(MonitoredExecutorTest, CountsTheRefusalsOfSeveralThreads) {
    int const each = ovra::test::scaled(20000);
    MonitoredExecutor none(nullptr);
    Gate areRunning(2);
    auto const refuse = [&] {
        areRunning.open();
        areRunning.wait();
        for (int i = 0; i < each; ++i) {
            none.submitTask(succeed(), NORMAL, {}, nullptr);
        }
    };
    std::thread other(refuse);
    refuse();
    other.join();
    EXPECT_EQ(none.counts().refused, 2u * static_cast<unsigned int>(each));
}

TEST_F(MonitoredExecutorTest, PassesEverythingOn) {
    auto const recording = std::make_shared<RecordingExecutor>();
    MonitoredExecutor other(recording);
    std::shared_ptr<Task> calledBack;
    auto const callback = [&](std::shared_ptr<Task> given) { calledBack = std::move(given); };
    auto const task = std::make_shared<NamedTask>(give(77), "named");
    EXPECT_NE(other.submitTask(task, concurrent::HIGH, callback), nullptr);
    EXPECT_EQ(recording->priority, concurrent::HIGH);
    EXPECT_STREQ(recording->task->name(), "named");
    EXPECT_EQ(recording->task->execute(), 77);
    recording->callback(recording->task);
    EXPECT_EQ(calledBack, task);

    char const name[] = "name";
    other.submitTask(give(78), concurrent::LOW, callback, name);
    EXPECT_EQ(recording->priority, concurrent::LOW);
    EXPECT_EQ(recording->task->name(), name);
    EXPECT_EQ(recording->task->execute(), 78);
    recording->callback(recording->task);
    EXPECT_EQ(calledBack->execute(), 78);
    EXPECT_EQ(calledBack->name(), name);
    other.submitTask(succeed(), NORMAL, {}, nullptr);
    EXPECT_EQ(recording->task->name(), nullptr);
    recording->isIdleNow = false;
    EXPECT_FALSE(other.isIdle());
    recording->isIdleNow = true;
    EXPECT_TRUE(other.isIdle());
}

TEST_F(MonitoredExecutorTest, ANullTaskPassesThroughUnwatched) {
    bool isCalled = false;
    auto const handle = monitored.submitTask(std::shared_ptr<Task>(), NORMAL,
                                             [&](auto const& given) { isCalled = !given; });
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(monitored.submitTask(std::shared_ptr<Task>(), NORMAL, {}), nullptr);
    EXPECT_EQ(shown(monitored.counts()), "0 0 0 0 0 0 0 ; 0 0 0 0");
    auto const task = manual->takeNext();
    task->performCallback();
    EXPECT_TRUE(isCalled);
}

TEST_F(MonitoredExecutorTest, WhatRunsInsideItsSubmissionHasNotWaited) {
    struct Direct : RecordingExecutor {
        std::shared_ptr<TaskHandle> submitTask(std::shared_ptr<Task> const& given,
                                               concurrent::TaskPriority,
                                               Callback const& givenCallback) override {
            given->execute();
            givenCallback(given);
            return std::make_shared<TaskHandle>(nullptr);
        }
        using RecordingExecutor::submitTask;
    };
    MonitoredExecutor direct(std::make_shared<Direct>());
    std::string during;
    direct.submitTask(
        [&] {
            clockMs += 3;
            during = shown(direct.counts());
            return Executable::SUCCESS;
        },
        NORMAL, {}, nullptr);
    EXPECT_EQ(during, "1 0 0 1 0 0 0 ; 0 0 0 3");
    EXPECT_EQ(shown(direct.counts()), "1 0 0 0 1 0 0 ; 0 3 0 0");
}

TEST_F(MonitoredExecutorTest, TheOldestIsTheOneThatIsSoForLongest) {
    monitored.submitTask(succeed(), concurrent::LOW, {}, "first");
    clockMs += 10;
    auto const second = monitored.submitTask(succeed(), NORMAL, {}, "second");
    clockMs += 10;
    monitored.submitTask(succeed(), NORMAL, {}, "third");
    EXPECT_EQ(written(monitored),
              "first waiting 20 ms\nsecond waiting 10 ms\nthird waiting 0 ms\n");
    second->cancel();
    manual->runNext();
    EXPECT_EQ(written(monitored), "first waiting 20 ms\nthird waiting 0 ms\n");
    std::string during;
    monitored.submitTask(
        [&] {
            clockMs += 15;
            during = written(monitored);
            return Executable::SUCCESS;
        },
        concurrent::HIGHEST, {}, "running");
    manual->runNext();
    EXPECT_EQ(during, "first waiting 35 ms\nrunning running 15 ms\nthird waiting 15 ms\n");
    manual->runAll();
    EXPECT_EQ(written(monitored), "");
}

TEST_F(MonitoredExecutorTest, NamesAreMadePrintable) {
    monitored.submitTask(succeed(), NORMAL, {}, "a\nb\tc\x7f\x1b[0m\x01 %s \xc3\xa4");
    monitored.submitTask(succeed(), NORMAL, {}, nullptr);
    monitored.submitTask(succeed(), NORMAL, {}, "");
    monitored.submitTask(std::make_shared<NamedTask>(succeed(), nullptr), NORMAL, {});
    EXPECT_EQ(written(monitored),
              "a?b?c??[0m? %s \xc3\xa4 waiting 0 ms\nunnamed waiting 0 ms\n waiting 0 ms\n"
              "unnamed waiting 0 ms\n");
}

TEST_F(MonitoredExecutorTest, WritesWithoutALockAndContinuesShortWrites) {
    std::vector<std::shared_ptr<TaskHandle>> handles;
    std::string const name(1000, 'n');
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        handles.push_back(monitored.submitTask(succeed(), NORMAL, {}, name.c_str()));
        expected += name + " waiting 0 ms\n";
    }
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread writing([&] {  // More than the pipe holds: it blocks.
        EXPECT_TRUE(monitored.writeTo(ends[1]));
        close(ends[1]);
    });
    std::string text(1, '\0');
    ASSERT_EQ(read(ends[0], text.data(), 1), 1);
    manual->runNext();
    EXPECT_EQ(monitored.counts().ended, 1u);
    std::vector<char> buffer(777);
    for (ssize_t length = 1; length > 0;) {
        length = read(ends[0], buffer.data(), buffer.size());
        text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }
    writing.join();
    close(ends[0]);
    EXPECT_EQ(text, expected);
}

TEST_F(MonitoredExecutorTest, AFailedWriteIsFalseAndKeepsErrno) {
    errno = 123;
    EXPECT_TRUE(monitored.writeTo(-1));  // There is nothing to write.
    monitored.submitTask(succeed(), NORMAL, {}, "task");
    EXPECT_FALSE(monitored.writeTo(-1));
    int const full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_FALSE(monitored.writeTo(full));
    close(full);
    EXPECT_EQ(errno, 123);
}

TEST_F(MonitoredExecutorTest, KeepsErrno) {
    struct Spoiling : RecordingExecutor {
        std::shared_ptr<TaskHandle> submitTask(std::shared_ptr<Task> const&,
                                               concurrent::TaskPriority, Callback const&) override {
            errno = EIO;
            return nullptr;
        }
        using RecordingExecutor::submitTask;
    };
    MonitoredExecutor other(std::make_shared<Spoiling>());
    errno = 123;
    other.submitTask(succeed(), NORMAL, {}, nullptr);
    other.submitTask(std::make_shared<NamedTask>(), NORMAL, {});
    other.submitTask(std::shared_ptr<Task>(), NORMAL, {});
    EXPECT_EQ(errno, 123);
}

TEST_F(MonitoredExecutorTest, MayDieBeforeItsTasksAndHoldsTheExecutor) {
    auto executor = std::make_shared<ManualExecutor>();
    std::weak_ptr<ManualExecutor> const seen = executor;
    auto other = std::make_unique<MonitoredExecutor>(executor);
    bool isCalled = false;
    other->submitTask(
        succeed(), NORMAL, [&](auto const&) { isCalled = true; }, nullptr);
    auto const held = std::move(executor);
    other.reset();
    held->runAll();
    EXPECT_TRUE(isCalled);
    other = std::make_unique<MonitoredExecutor>(std::make_shared<ManualExecutor>());
    other->submitTask(succeed(), NORMAL, {}, nullptr);
}

TEST_F(MonitoredExecutorTest, KeepsNothingOfATaskThatHasEnded) {
    auto work = std::make_shared<int>(1);
    std::weak_ptr<int> const seen = work;
    monitored.submitTask([work = std::move(work)] { return Executable::SUCCESS; }, NORMAL, {},
                         nullptr);
    EXPECT_FALSE(seen.expired());
    manual->runAll();
    EXPECT_TRUE(seen.expired());
}

// Every snapshot is whole, whatever other threads do.
TEST_F(MonitoredExecutorTest, SnapshotsAreConsistent) {
    clockMs = -1;
    auto const executor = makeExecutor(2);
    MonitoredExecutor other(executor);
    std::atomic<int> running{2};
    int const rounds = ovra::test::scaled(3000);
    std::vector<std::thread> submitters;
    for (int thread = 0; thread < 2; ++thread) {
        submitters.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                auto const handle = other.submitTask(give(round % 2 + 2), NORMAL, {}, "round");
                if (round % 3 == 0) {
                    handle->cancel();
                }
            }
            --running;
        });
    }
    TaskCounts last;
    while (running > 0) {
        TaskCounts const now = other.counts();
        EXPECT_EQ(now.submitted, now.waiting + now.running + now.ended + now.dropped);
        EXPECT_LE(now.running, 2u);
        EXPECT_GE(now.submitted, last.submitted);
        EXPECT_GE(now.ended, last.ended);
        EXPECT_GE(now.dropped, last.dropped);
        EXPECT_LE(now.failed, now.ended);
        last = now;
    }
    for (auto& submitter : submitters) {
        submitter.join();
    }
    ovra::test::yieldUntil([&] {
        auto const now = other.counts();
        return now.waiting + now.running == 0;
    });
    EXPECT_EQ(other.counts().submitted, 2u * static_cast<std::uint64_t>(rounds));
}

TEST_F(MonitoredExecutorTest, RandomTraces) {
    ovra::test::RandomSource random(ovra::test::runSeed());
    int const traces = ovra::test::scaled(200);
    for (int trace = 0; trace < traces; ++trace) {
        auto const executor = std::make_shared<ManualExecutor>();
        MonitoredExecutor other(executor);
        TaskCounts model;
        std::vector<std::pair<std::int64_t, std::shared_ptr<TaskHandle>>> queued;
        bool isClosed = false;
        for (int step = 0; step < 50; ++step) {
            switch (random.below(6)) {
                case 0:
                case 1: {
                    auto const handle =
                        other.submitTask(give(random.between(2, 4)), NORMAL, {}, "task");
                    ++(handle ? model.submitted : model.refused);
                    ASSERT_EQ(handle == nullptr, isClosed);
                    if (handle) {
                        queued.push_back({clockMs, handle});
                    }
                    break;
                }
                case 2:
                    clockMs += random.below(100);
                    break;
                case 3:
                    if (!queued.empty()) {
                        queued[random.below(static_cast<std::uint32_t>(queued.size()))]
                            .second->cancel();
                    }
                    break;
                case 4:
                    if (executor->runNext()) {  // The oldest: all have the same priority.
                        auto const [since, handle] = queued.front();
                        queued.erase(queued.begin());
                        if (handle->getState() == Executable::CANCELLED) {
                            ++model.dropped;
                        } else {
                            ++model.ended;
                            model.failed += handle->getResult() == Executable::FAILURE ? 1u : 0u;
                            model.longestWait = std::max(
                                model.longestWait, std::chrono::milliseconds(clockMs - since));
                        }
                    }
                    break;
                default:
                    if (random.oneIn(20)) {
                        executor->close();
                        isClosed = true;
                        model.dropped += queued.size();
                        queued.clear();
                    }
                    break;
            }
            model.waiting = queued.size();
            model.oldestWaiting =
                std::chrono::milliseconds(queued.empty() ? 0 : clockMs - queued.front().first);
            ASSERT_EQ(shown(other.counts()), shown(model)) << ovra::test::seedNote();
        }
    }
}

}  // namespace
}  // namespace ovra::extra
