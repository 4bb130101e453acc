// Submits a task and waits for it, over and over. Sooner or later the task comes between a worker's
// empty fetch and its wait; were it slept through, the round would never end.

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/RandomSource.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

struct Setting {
    char const* name;
    unsigned int workers;
    bool onOneProcessor;
};

void PrintTo(Setting const& row, std::ostream* out) {
    *out << row.name;
}

std::string nameOfSetting(::testing::TestParamInfo<Setting> const& parameter) {
    return parameter.param.name;
}

// Keeps this thread, and all that it starts, on one processor.
class OneProcessor {
public:
    OneProcessor() {
        CPU_ZERO(&before);
        EXPECT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
        cpu_set_t one;
        CPU_ZERO(&one);
        for (std::size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(processor, &before)) {
                CPU_SET(processor, &one);
                break;
            }
        }
        EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    }
    OneProcessor(OneProcessor const&) = delete;
    OneProcessor& operator=(OneProcessor const&) = delete;
    ~OneProcessor() { sched_setaffinity(0, sizeof before, &before); }

private:
    cpu_set_t before;
};

class LostWakeUpTest : public ::testing::TestWithParam<Setting> {
private:
    test::Watchdog watchdog{test::deadlineSeconds() * 5};
};

TEST_P(LostWakeUpTest, EveryRoundEnds) {
    std::unique_ptr<OneProcessor> const pinned =
        GetParam().onOneProcessor ? std::make_unique<OneProcessor>() : nullptr;
    TaskExecutorImpl executor(GetParam().workers, makeQueue());
    int const rounds = test::scaled(100000);
    int completed = 0;
    Work const work = succeed();
    for (int round = 0; round < rounds; ++round) {
        auto const handle = executor.submitTask(work, NORMAL, {}, "round");
        handle->waitForCompletion();
        completed += handle->getState() == Executable::DONE ? 1 : 0;
    }

    EXPECT_EQ(completed, rounds);
    EXPECT_TRUE(executor.isIdle());
}

// As above, with a round that needs every worker, and threads that give way now and then just
// before they lock: a worker, for one, between its empty fetch and its wait. Without that, on few
// processors, it hardly ever happens.
TEST_P(LostWakeUpTest, EveryRoundEndsWhoeverGivesWay) {
    std::unique_ptr<OneProcessor> const pinned =
        GetParam().onOneProcessor ? std::make_unique<OneProcessor>() : nullptr;
    std::atomic<std::uint64_t> seed{test::runSeed()};
    SCOPED_TRACE(test::seedNote());
    test::ThreadCalls calls;
    calls.onLock = [&seed](pthread_mutex_t*) {
        if (test::RandomSource(++seed).oneIn(4)) {
            sched_yield();
        }
        return 0;
    };
    calls.install();
    auto const workers = static_cast<int>(GetParam().workers);
    TaskExecutorImpl executor(GetParam().workers, makeQueue());
    int const rounds = test::scaled(workers == 1 ? 5000 : 1200);
    for (int round = 0; round < rounds; ++round) {
        test::Gate together(workers);
        std::vector<std::shared_ptr<TaskHandle>> handles;
        for (int i = 0; i < workers; ++i) {
            handles.push_back(executor.submitTask(
                [&together] {
                    together.open();
                    together.wait();
                    return Executable::SUCCESS;
                },
                NORMAL, {}, "round"));
        }
        for (auto const& handle : handles) {
            handle->waitForCompletion();
            ASSERT_EQ(handle->getState(), Executable::DONE);
        }
    }
}

// A cancelled task takes the worker back to its queue by another way.
TEST_P(LostWakeUpTest, EveryRoundWithACancellationEnds) {
    std::unique_ptr<OneProcessor> const pinned =
        GetParam().onOneProcessor ? std::make_unique<OneProcessor>() : nullptr;
    TaskExecutorImpl executor(GetParam().workers, makeQueue<NoStarveTaskRankingStrategy>());
    int const rounds = test::scaled(25000);
    int completed = 0;
    Work const work = succeed();
    for (int round = 0; round < rounds; ++round) {
        auto const handle = executor.submitTask(work, LOW, {}, "round");
        handle->cancel();
        handle->waitForCompletion();
        completed += handle->isDone() ? 1 : 0;
    }

    EXPECT_EQ(completed, rounds);
}

INSTANTIATE_TEST_SUITE_P(Stress, LostWakeUpTest,
                         ::testing::Values(Setting{"OneWorker", 1, false},
                                           Setting{"TwelveWorkers", 12, false},
                                           Setting{"OneWorkerOnOneProcessor", 1, true},
                                           Setting{"TwelveWorkersOnOneProcessor", 12, true}),
                         nameOfSetting);

}  // namespace
}  // namespace ovra::concurrent
