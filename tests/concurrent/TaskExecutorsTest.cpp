#include <ovra/concurrent/TaskExecutors.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {
namespace {

static_assert(std::is_same_v<decltype(S_NUM_TASK_EXECUTOR_THREADS), unsigned int const>);

using Getter = std::shared_ptr<TaskExecutor> (*)();

struct Shared {
    char const* name;
    Getter get;
    char const* line;
    bool keepsRanks;
};

void PrintTo(Shared const& shared, std::ostream* out) {
    *out << shared.name;
}

class TaskExecutorsTest : public test::BoundedTest, public ::testing::WithParamInterface<Shared> {
protected:
    // Each EXPECT_EXIT is then a process in which nobody has used a shared executor yet.
    TaskExecutorsTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
class TaskExecutorsPairTest : public test::BoundedTest {};

std::string nameOfShared(::testing::TestParamInfo<Shared> const& parameter) {
    return parameter.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    Shared, TaskExecutorsTest,
    ::testing::Values(Shared{"HighestPriority", &getHighestPriorityTaskExecutor,
                             "[TaskExecutors::getHighestPriorityTaskExecutor():INFO] "
                             "HighestPriorityTaskExecutor Number of executor threads - 1",
                             true},
                      Shared{"NoStarve", &getNoStarveTaskExecutor,
                             "[TaskExecutors::getNoStarveTaskExecutor():INFO] "
                             "NoStarveTaskExecutor Number of executor threads - 1",
                             false}),
    nameOfShared);

char const STARTING[] = "[TaskExecutorWorker::run():INFO] Starting task executor worker thread.";

// Prints every line that is logged, and lives as long as the process.
void printLog() {
    static auto* const recorder = new test::LogRecorder;
    recorder->onLine(
        [](test::LogLine const& line) { std::fprintf(stderr, "%s;", line.text.c_str()); });
}

// A process that ends while its shared executor still has something to do.
std::function<void()> whatExitDoes;

TEST_F(TaskExecutorsPairTest, HaveOneThreadEach) {
    EXPECT_EQ(S_NUM_TASK_EXECUTOR_THREADS, 1u);
}

TEST_F(TaskExecutorsPairTest, ShareNothing) {
    auto const strict = getHighestPriorityTaskExecutor();
    auto const fair = getNoStarveTaskExecutor();
    EXPECT_NE(strict, fair);

    // While the one is occupied and has work queued, the other is idle and runs.
    Occupation const occupation(*strict);
    auto const queued = strict->submitTask(succeed(), NORMAL, {}, "queued");
    EXPECT_TRUE(fair->isIdle());
    std::thread::id other;
    fair->submitTask(
            [&other] {
                other = std::this_thread::get_id();
                return Executable::SUCCESS;
            },
            NORMAL, {}, "other")
        ->waitForCompletion();
    EXPECT_FALSE(strict->isIdle());
    EXPECT_NE(other, std::this_thread::get_id());
    EXPECT_EQ(queued->getState(), Executable::UNSCHEDULED);
}

TEST_P(TaskExecutorsTest, EveryCallReturnsTheSameExecutor) {
    auto const first = GetParam().get();
    auto const second = GetParam().get();

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.use_count(), 3) << "two here, and the library's own";
}

TEST_P(TaskExecutorsTest, EveryCallIsLogged) {
    // By then the worker has logged its start.
    GetParam().get()->submitTask(succeed(), NORMAL, {}, "work")->waitForCompletion();
    test::LogRecorder recorder;

    GetParam().get();
    GetParam().get();

    // Beside those of the worker, which may start only now.
    auto const lines = recorder.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), test::LogLine{GetParam().line, log::INFO}), 2);
}

TEST_P(TaskExecutorsTest, CallsAreSilentAtTheInitialLevel) {
    test::LogRecorder recorder(log::ERROR);

    GetParam().get();

    EXPECT_THAT(recorder.texts(), ::testing::IsEmpty());
}

TEST_P(TaskExecutorsTest, FirstCallIsLoggedBeforeTheWorkerStarts) {
    auto const process = [] {
        test::LogRecorder recorder;
        GetParam().get();
        recorder.waitFor(STARTING);
        bool const ok = recorder.texts() == std::vector<std::string>{GetParam().line, STARTING};
        std::_Exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "");
}

TEST_P(TaskExecutorsTest, ConcurrentFirstCallsMakeOneExecutor) {
    auto const process = [] {
        constexpr int THREADS = 8;
        test::LogRecorder recorder;
        test::Gate start(THREADS);
        std::vector<std::shared_ptr<TaskExecutor>> found(THREADS);
        std::vector<std::thread> threads;
        for (auto& mine : found) {
            threads.emplace_back([&] {
                start.open();
                start.wait();
                mine = GetParam().get();
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        recorder.waitFor(STARTING);
        bool const same = std::count(found.begin(), found.end(), found.front()) == THREADS;
        bool const ok = same && found.front() != nullptr && recorder.count(STARTING) == 1 &&
                        recorder.count(GetParam().line) == THREADS;
        std::_Exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "");
}

TEST_P(TaskExecutorsTest, RunsTasksOneAtATimeOnOneThread) {
    constexpr int TASKS = 20;
    auto const executor = GetParam().get();
    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};
    std::vector<std::thread::id> threads;
    std::vector<std::shared_ptr<TaskHandle>> handles;
    {
        Occupation const occupation(*executor);
        for (int i = 0; i < TASKS; ++i) {
            handles.push_back(executor->submitTask(
                [&] {
                    mostAtOnce = std::max(mostAtOnce.load(), ++running);
                    threads.push_back(std::this_thread::get_id());
                    --running;
                    return Executable::SUCCESS;
                },
                i % 2 == 0 ? LOW : HIGH, {}, "work"));
        }
    }
    for (auto const& handle : handles) {
        handle->waitForCompletion();
    }

    EXPECT_EQ(mostAtOnce, 1);
    ASSERT_EQ(threads.size(), std::size_t{TASKS});
    EXPECT_EQ(std::count(threads.begin(), threads.end(), threads.front()), TASKS);
}

TEST_P(TaskExecutorsTest, WaitingWorkGainsRankOnlyUnderNoStarve) {
    auto const executor = GetParam().get();
    std::string order;
    auto const note = [&order](char letter) -> Work {
        return [&order, letter] {
            order += letter;
            return Executable::SUCCESS;
        };
    };
    std::vector<std::shared_ptr<TaskHandle>> handles;
    {
        Occupation const occupation(*executor);
        handles.push_back(executor->submitTask(note('l'), LOW, {}, "low"));
        for (int i = 0; i < 40; ++i) {
            handles.push_back(executor->submitTask(note('h'), HIGHEST, {}, "highest"));
        }
    }
    for (auto const& handle : handles) {
        handle->waitForCompletion();
    }

    // After 31 picks the low one stands at the cap, and is the oldest.
    auto const expected = static_cast<std::size_t>(GetParam().keepsRanks ? 40 : 31);
    EXPECT_EQ(order.find('l'), expected);
}

// --- the end of the process

TEST_P(TaskExecutorsTest, ExitEndsTheWorker) {
    auto const process = [] {
        printLog();
        GetParam().get();
        std::exit(0);
    };
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "Terminating task executor worker thread");
}

TEST_P(TaskExecutorsTest, ExitWaitsForTheRunningTaskAndDropsTheQueuedOne) {
    auto const process = [] {
        // Made before the executor, and so destroyed after it.
        static test::Gate entered;
        static test::Gate dropped;
        auto executor = GetParam().get();
        executor->submitTask(
            [] {
                entered.open();
                dropped.wait();
                std::fputs("work;", stderr);
                return Executable::SUCCESS;
            },
            NORMAL, [](std::shared_ptr<Task> const&) { std::fputs("callback;", stderr); },
            "running");
        entered.wait();
        executor->submitTask(
            [end = test::atEnd([] {
                 std::fputs("dropped;", stderr);
                 dropped.open();
             })] {
                std::fputs("queued work;", stderr);
                return Executable::SUCCESS;
            },
            NORMAL, [](std::shared_ptr<Task> const&) { std::fputs("queued callback;", stderr); },
            "queued");
        executor.reset();  // exit() would not.
        std::exit(0);
    };
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "^dropped;work;callback;$");
}

TEST_P(TaskExecutorsTest, CallerThatKeepsItsReferenceKeepsTheExecutorAtExit) {
    auto const process = [] {
        std::atexit([] { whatExitDoes(); });  // Runs after the library's own release.
        auto* const held = new std::shared_ptr<TaskExecutor>(GetParam().get());
        whatExitDoes = [held] {
            auto const handle = (*held)->submitTask(succeed(), NORMAL, {}, "late");
            handle->waitForCompletion();
            std::fprintf(stderr, "late task %d, references %ld;",
                         static_cast<int>(handle->getResult()), held->use_count());
        };
        std::exit(0);
    };
    EXPECT_EXIT(process(), ::testing::ExitedWithCode(0), "late task 2, references 1;");
}

}  // namespace
}  // namespace ovra::concurrent
