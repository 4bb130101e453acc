// Executors under many threads at once, and made and destroyed in every situation.

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::concurrent {
namespace {

class ExecutorStressTest : public ::testing::Test {
private:
    test::Watchdog watchdog{test::deadlineSeconds() * 5};
};

TaskPriority anyPriority(test::RandomSource& random) {
    return static_cast<TaskPriority>(random.between(0, 5));
}

// What is to hold of every task, whatever was done to it.
struct Ledger {
    std::atomic<int> submitted{0};
    std::atomic<int> runs{0};
    std::atomic<int> callbacks{0};
    std::atomic<int> wrongStates{0};
    std::atomic<int> aborted{0};
    std::atomic<int> overlaps{0};
};

// Submits, re-prioritises, cancels and waits, and checks each outcome.
void useExecutor(TaskExecutor& executor, Ledger& ledger, test::RandomSource random, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::shared_ptr<TaskHandle>> handles;
        std::vector<std::shared_ptr<std::atomic<int>>> runs;
        auto const burst = random.between(1, 8);
        for (int i = 0; i < burst; ++i) {
            auto const own = std::make_shared<std::atomic<int>>(0);
            int const repeats = random.oneIn(4) ? random.between(1, 3) : 0;
            bool const throws = random.oneIn(10);
            auto work = [&ledger, own, repeats, throws]() -> Executable::Result {
                if (++*own <= repeats) {
                    return Executable::REPEAT;
                }
                ++ledger.runs;
                if (throws) {
                    throw own;
                }
                return Executable::SUCCESS;
            };
            auto callback = [&ledger](std::shared_ptr<Task> const& task) {
                ++ledger.callbacks;
                ledger.wrongStates += task == nullptr ? 1 : 0;
            };
            handles.push_back(
                executor.submitTask(Work(work), anyPriority(random), callback, "stressed"));
            runs.push_back(own);
            ++ledger.submitted;
        }
        std::vector<bool> cancelled(handles.size());
        for (std::uint32_t action = random.below(12); action > 0; --action) {
            std::size_t const chosen = random.below(static_cast<std::uint32_t>(handles.size()));
            if (random.oneIn(3)) {
                handles[chosen]->cancel();
                cancelled[chosen] = true;
            } else {
                handles[chosen]->updatePriority(anyPriority(random));
            }
        }
        for (std::size_t i = 0; i < handles.size(); ++i) {
            auto const& handle = handles[i];
            handle->waitForCompletion();
            auto const result = handle->getResult();
            bool right = handle->isDone();
            if (result == Executable::ABORTED) {
                // Never run, or stopped while it repeated.
                ++ledger.aborted;
                right = right && cancelled[i] && handle->getException() == nullptr;
            } else if (result == Executable::FAILURE) {
                right = right && handle->getException() != nullptr;
            } else {
                right = right && result == Executable::SUCCESS &&
                        handle->getException() == nullptr && *runs[i] > 0;
            }
            right = right && (cancelled[i] || handle->getState() == Executable::DONE);
            ledger.wrongStates += right ? 0 : 1;
        }
    }
}

template <typename Strategy>
class ExecutorCrowdTest : public ExecutorStressTest {};
using Strategies =
    ::testing::Types<HighestPriorityTaskRankingStrategy, NoStarveTaskRankingStrategy>;
TYPED_TEST_SUITE(ExecutorCrowdTest, Strategies, StrategyName);

TYPED_TEST(ExecutorCrowdTest, EveryTaskComesToItsEnd) {
    constexpr int CALLERS = 6;
    test::RandomSource seeds(test::runSeed());
    SCOPED_TRACE(test::seedNote());
    for (unsigned int const workers : {1u, 3u, 12u}) {
        Ledger ledger;
        auto const queue = makeQueue<TypeParam>();
        auto executor = std::make_unique<TaskExecutorImpl>(workers, queue);
        std::vector<std::thread> callers;
        for (int i = 0; i < CALLERS; ++i) {
            callers.emplace_back([&, random = test::RandomSource(seeds.next())] {
                useExecutor(*executor, ledger, random, test::scaled(700));
            });
        }
        for (auto& caller : callers) {
            caller.join();
        }
        EXPECT_TRUE(executor->isIdle());
        executor.reset();

        EXPECT_EQ(ledger.wrongStates, 0);
        // What ran to its end was called back; of the aborted, those that had started too.
        EXPECT_LE(ledger.runs, ledger.callbacks);
        EXPECT_EQ(ledger.runs + ledger.aborted, ledger.submitted);
        EXPECT_LE(ledger.callbacks, ledger.submitted);
    }
}

TEST_F(ExecutorStressTest, SharedExecutorsServeManyCallers) {
    constexpr int CALLERS = 4;
    Ledger ledger;
    test::RandomSource seeds(test::runSeed() + 1);
    SCOPED_TRACE(test::seedNote());
    std::vector<std::thread> callers;
    for (int i = 0; i < CALLERS; ++i) {
        callers.emplace_back([&, i, random = test::RandomSource(seeds.next())] {
            auto const executor =
                i % 2 == 0 ? getNoStarveTaskExecutor() : getHighestPriorityTaskExecutor();
            useExecutor(*executor, ledger, random, test::scaled(500));
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }

    EXPECT_EQ(ledger.wrongStates, 0);
    EXPECT_EQ(ledger.runs + ledger.aborted, ledger.submitted);
    // The last callbacks may still be running, and use the ledger.
    for (auto const& executor : {getNoStarveTaskExecutor(), getHighestPriorityTaskExecutor()}) {
        executor->submitTask(succeed(), LOW, {}, "last")->waitForCompletion();
    }
}

TEST_F(ExecutorStressTest, ExecutorsCanBeDestroyedInEverySituation) {
    test::RandomSource random(test::runSeed() + 2);
    SCOPED_TRACE(test::seedNote());
    std::atomic<int> started{0};
    std::atomic<int> ended{0};
    std::atomic<int> calledBack{0};
    for (int round = 0; round < test::scaled(10000); ++round) {
        started = ended = calledBack = 0;
        auto const queue = random.oneIn(2) ? makeQueue() : makeQueue<NoStarveTaskRankingStrategy>();
        auto executor = std::make_unique<TaskExecutorImpl>(
            static_cast<unsigned int>(random.between(0, 3)), queue);
        std::vector<std::shared_ptr<TaskHandle>> handles;
        std::vector<std::weak_ptr<Task>> tasks;
        for (int i = random.between(0, 5); i > 0; --i) {
            auto const task = std::make_shared<NamedTask>([&] {
                ++started;
                std::this_thread::yield();
                ++ended;
                return Executable::SUCCESS;
            });
            tasks.push_back(task);
            handles.push_back(
                executor->submitTask(task, anyPriority(random), [&](std::shared_ptr<Task> const&) {
                    std::this_thread::yield();
                    ++calledBack;
                }));
        }
        // Where the workers are by now is for the scheduler to say.
        for (int i = random.between(0, 3); i > 0; --i) {
            std::this_thread::yield();
        }
        bool const isOneCancelled = !handles.empty() && random.oneIn(3);
        if (isOneCancelled) {
            handles[random.below(static_cast<std::uint32_t>(handles.size()))]->cancel();
        }
        executor.reset();

        ASSERT_EQ(started, ended);
        // One that is cancelled as it begins does not run, but is called back.
        ASSERT_GE(calledBack, ended);
        ASSERT_LE(calledBack, ended + (isOneCancelled ? 1 : 0));
        int done = 0;
        for (std::size_t i = 0; i < handles.size(); ++i) {
            bool const isDone = handles[i]->getResult() == Executable::SUCCESS;
            done += isDone ? 1 : 0;
            ASSERT_TRUE(tasks[i].expired());
            ASSERT_NE(handles[i]->getState(), Executable::EXECUTING);
            handles[i]->waitForCompletion();
        }
        ASSERT_EQ(done, ended);
        ASSERT_EQ(queue.use_count(), 1);
    }
}

TEST_F(ExecutorStressTest, StateOfAHandleIsThatOfItsTaskWhoeverChangesIt) {
    for (int round = 0; round < test::scaled(3000); ++round) {
        auto const task = submission();
        auto const handle = linkHandle(task);
        test::Gate start(2);
        auto const change = [&](Executable::State state, Executable::Result result) {
            start.open();
            start.wait();
            for (int i = 0; i < 20; ++i) {
                task->setState(state);
                task->setResult(result);
            }
        };
        std::thread other(change, Executable::CANCELLED, Executable::ABORTED);
        change(Executable::DONE, Executable::SUCCESS);
        other.join();

        ASSERT_EQ(handle->getState(), task->getState());
        ASSERT_EQ(handle->getResult(), task->getResult());
    }
}

}  // namespace
}  // namespace ovra::concurrent
