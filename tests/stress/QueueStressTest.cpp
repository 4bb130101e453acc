// One queue under threads that add, pick and change ranks at once.

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::concurrent {
namespace {

constexpr int SUBMITTERS = 3;
constexpr int PICKERS = 2;

// What a submitter keeps of its tasks for others to change.
class Pool {
public:
    void put(std::shared_ptr<SubmittedTask> task, std::shared_ptr<TaskHandle> handle) {
        std::lock_guard<std::mutex> const lock(mutex);
        auto& entry = entries[next++ % entries.size()];
        entry = {std::move(task), std::move(handle)};
    }
    std::pair<std::shared_ptr<SubmittedTask>, std::shared_ptr<TaskHandle>> any(
        test::RandomSource& random) {
        std::lock_guard<std::mutex> const lock(mutex);
        return entries[random.below(static_cast<std::uint32_t>(entries.size()))];
    }

private:
    std::mutex mutex;
    std::size_t next = 0;
    std::vector<std::pair<std::shared_ptr<SubmittedTask>, std::shared_ptr<TaskHandle>>> entries{64};
};

template <typename Strategy>
class QueueStressTest : public ::testing::Test {
private:
    test::Watchdog watchdog{test::deadlineSeconds() * 5};
};

// An application's own strategy, which nobody can foresee; only ever called under the queue's lock.
class Shuffling : public TaskRankingStrategy {
public:
    void updateRank(SubmittedTask* task) override {
        if (random.oneIn(3)) {
            task->setRank(random.word() >> random.below(32));
        }
    }

private:
    test::RandomSource random{test::runSeed()};
};

using AllStrategies =
    ::testing::Types<HighestPriorityTaskRankingStrategy, NoStarveTaskRankingStrategy, Shuffling>;
TYPED_TEST_SUITE(QueueStressTest, AllStrategies, StrategyName);

TYPED_TEST(QueueStressTest, EachTaskIsPickedOnceWhileRanksChange) {
    int const each = test::scaled(1500);
    auto const queue = makeQueue<TypeParam>();
    test::RandomSource seeds(test::runSeed());
    SCOPED_TRACE(test::seedNote());
    Pool pool;
    std::atomic<bool> finished{false};
    std::atomic<int> submitted{0};
    std::atomic<int> picked{0};
    std::vector<std::vector<std::int32_t>> indices(PICKERS);
    std::vector<std::vector<std::int32_t>> added(SUBMITTERS);
    std::vector<std::thread> workers;
    for (auto& mine : added) {
        workers.emplace_back([&, random = test::RandomSource(seeds.next())]() mutable {
            for (int i = 0; i < each; ++i) {
                // A pick may have to scan the whole queue: keep it short.
                test::yieldUntil([&] { return submitted - picked < 300; });
                ++submitted;
                auto task = submission(succeed(), static_cast<TaskPriority>(random.between(0, 5)));
                mine.push_back(task->getUniqueIndex());
                auto handle = queue->addTask(task);
                pool.put(std::move(task), std::move(handle));
            }
        });
    }
    for (auto& mine : indices) {
        workers.emplace_back([&] {
            test::yieldUntil([&] {
                if (auto const task = queue->getNextTask()) {
                    mine.push_back(task->getUniqueIndex());
                    ++picked;
                }
                return picked >= SUBMITTERS * each;
            });
            finished = true;
        });
    }
    for (int i = 0; i < 2; ++i) {
        workers.emplace_back([&, random = test::RandomSource(seeds.next())]() mutable {
            while (!finished) {
                auto const chosen = pool.any(random);
                std::this_thread::yield();
                if (!chosen.first) {
                    continue;
                }
                if (random.oneIn(2)) {
                    chosen.second->updatePriority(static_cast<TaskPriority>(random.between(0, 5)));
                } else if (random.oneIn(2)) {
                    chosen.first->setRank(random.word() >> random.below(32));
                } else if (random.oneIn(2)) {
                    chosen.second->cancel();
                } else {
                    NoStarveTaskRankingStrategy().updateRank(chosen.first.get());
                }
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }

    EXPECT_TRUE(queue->isEmpty());
    std::map<std::int32_t, int> balance;
    for (auto const& mine : added) {
        for (std::int32_t const index : mine) {
            ++balance[index];
        }
    }
    for (auto const& mine : indices) {
        for (std::int32_t const index : mine) {
            --balance[index];
        }
    }
    for (auto const& entry : balance) {
        ASSERT_EQ(entry.second, 0) << "picked twice, never, or never added: " << entry.first;
    }
    EXPECT_EQ(balance.size(), static_cast<std::size_t>(SUBMITTERS * each));
}

TYPED_TEST(QueueStressTest, OrderIsRightOnceTheThreadsAreQuiet) {
    // Ranks change from all sides while the queue grows and is picked from. After that, a pick must
    // again be the best there is.
    test::RandomSource seeds(test::runSeed() + 1);
    SCOPED_TRACE(test::seedNote());
    for (int round = 0; round < test::scaled(60); ++round) {
        auto const queue = makeQueue<TypeParam>();
        std::vector<std::shared_ptr<SubmittedTask>> tasks;
        for (int i = 0; i < 60; ++i) {
            tasks.push_back(submission(succeed(), static_cast<TaskPriority>(seeds.between(1, 4))));
        }
        test::Gate start(4);
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            start.open();
            start.wait();
            for (auto const& task : tasks) {
                queue->addTask(task);
            }
        });
        threads.emplace_back([&] {
            start.open();
            start.wait();
            for (int i = 0; i < 20; ++i) {
                queue->getNextTask();
            }
        });
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&, random = test::RandomSource(seeds.next())]() mutable {
                start.open();
                start.wait();
                for (int change = 0; change < 300; ++change) {
                    auto const& task = tasks[random.below(60)];
                    if (random.oneIn(2)) {
                        task->setPriority(static_cast<TaskPriority>(random.between(1, 4)));
                    } else {
                        task->setRank(random.word() >> random.below(32));
                    }
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }

        bool const doubles = std::is_same_v<TypeParam, NoStarveTaskRankingStrategy>;
        for (;;) {
            std::map<SubmittedTask*, std::uint64_t> ranks;
            std::uint64_t best = 0;
            for (auto const& task : tasks) {
                if (task.use_count() > 1) {
                    std::uint64_t const rank = task->getRank();
                    ranks[task.get()] = rank;
                    best =
                        std::max(best, rank + static_cast<std::uint64_t>(task->getUniqueIndex()));
                }
            }
            auto const picked = queue->getNextTask();
            if (!picked) {
                ASSERT_TRUE(ranks.empty());
                break;
            }
            ASSERT_EQ(ranks.count(picked.get()), 1u);
            ASSERT_EQ(ranks[picked.get()] + static_cast<std::uint64_t>(picked->getUniqueIndex()),
                      best);
            if (!std::is_same_v<TypeParam, Shuffling>) {
                // Two threads that set the priority of a task at once may leave it with the one's
                // priority and the other's rank, below what that priority starts with.
                for (auto const& [task, rank] : ranks) {
                    std::uint64_t const floor =
                        submittedTaskPriorityToInitialRank(task->getPriority());
                    std::uint64_t const doubled = std::min<std::uint64_t>(rank * 2, 0x7fffffff);
                    ASSERT_EQ(task->getRank(), doubles ? std::max(doubled, floor) : rank);
                }
            }
        }
    }
}

template <typename Strategy>
class QueueOrderStressTest : public QueueStressTest<Strategy> {};
using OrderedStrategies =
    ::testing::Types<HighestPriorityTaskRankingStrategy, NoStarveTaskRankingStrategy>;
TYPED_TEST_SUITE(QueueOrderStressTest, OrderedStrategies, StrategyName);

TYPED_TEST(QueueOrderStressTest, TasksOfOneSubmitterAndPriorityStayInOrder) {
    int const each = test::scaled(6000);
    auto const queue = makeQueue<TypeParam>();
    struct Origin {
        int submitter;
        TaskPriority priority;
        int number;
    };
    std::mutex mutex;
    std::map<std::int32_t, Origin> origins;
    std::vector<std::thread> submitters;
    test::RandomSource seeds(test::runSeed());
    SCOPED_TRACE(test::seedNote());
    for (int submitter = 0; submitter < SUBMITTERS; ++submitter) {
        submitters.emplace_back(
            [&, submitter, random = test::RandomSource(seeds.next())]() mutable {
                for (int number = 0; number < each; ++number) {
                    auto const priority = static_cast<TaskPriority>(random.between(1, 4));
                    auto const task = submission(succeed(), priority);
                    {
                        std::lock_guard<std::mutex> const lock(mutex);
                        origins[task->getUniqueIndex()] = {submitter, priority, number};
                    }
                    queue->addTask(task);
                }
            });
    }
    std::map<std::pair<int, TaskPriority>, int> last;
    int outOfOrder = 0;
    int picked = 0;
    test::yieldUntil([&] {
        if (auto const task = queue->getNextTask()) {
            ++picked;
            std::lock_guard<std::mutex> const lock(mutex);
            Origin const& origin = origins.at(task->getUniqueIndex());
            auto const found = last.emplace(std::make_pair(origin.submitter, origin.priority), -1);
            outOfOrder += origin.number <= found.first->second ? 1 : 0;
            found.first->second = origin.number;
        }
        return picked == SUBMITTERS * each;
    });
    for (auto& submitter : submitters) {
        submitter.join();
    }

    EXPECT_EQ(outOfOrder, 0);
    EXPECT_TRUE(queue->isEmpty());
}

}  // namespace
}  // namespace ovra::concurrent
