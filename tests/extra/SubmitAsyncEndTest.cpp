// How work with a value ends: each way, in each situation.

#include <pthread.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/extra/SubmitAsync.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/AsyncSupport.h>
#include <tests/support/RandomSource.h>

namespace ovra::extra {
namespace {

using concurrent::Executable;
using concurrent::Occupation;
using concurrent::TaskExecutorImpl;
using test::Gate;
using test::RandomSource;

class SubmitAsyncEndTest : public concurrent::ExecutorTest {};

// What a future comes to; waits for it.
template <typename Value>
std::string endOf(std::future<Value>& future) {
    try {
        if constexpr (std::is_void_v<Value>) {
            future.get();
            return "nothing";
        } else {
            return std::to_string(future.get());
        }
    } catch (std::future_error const& error) {
        return error.code() == std::future_errc::broken_promise ? "broken" : "wrong";
    } catch (std::exception const& exception) {
        return exception.what();
    }
}

enum class End { CANCEL, CANCEL_HANDLE, DESTROY_EXECUTOR, CLOSE_QUEUE, DROP_HANDLE };
constexpr End ENDS[] = {End::CANCEL, End::CANCEL_HANDLE, End::DESTROY_EXECUTOR, End::CLOSE_QUEUE,
                        End::DROP_HANDLE};

// Brings about `end`, and lets the worker go on meanwhile or afterwards.
template <typename Value, typename LetGo>
void bringAbout(End end, Async<Value>& async, std::shared_ptr<TaskExecutorImpl>& executor,
                concurrent::SubmittedTasksQueue& queue, LetGo letGo) {
    switch (end) {
        case End::CANCEL:
            async.cancel();
            break;
        case End::CANCEL_HANDLE:
            async.handle->cancel();
            break;
        case End::DESTROY_EXECUTOR: {
            std::thread destroying([&] { executor.reset(); });  // Waits for the worker.
            test::yieldUntil([&] { return queue.isClosed(); });
            letGo();
            destroying.join();
            return;
        }
        case End::CLOSE_QUEUE:
            queue.close();
            break;
        case End::DROP_HANDLE:
            async.handle.reset();
            break;
    }
    letGo();
}

TEST_F(SubmitAsyncEndTest, QueuedWorkRunsOrItsPromiseIsBroken) {
    for (End const end : ENDS) {
        auto const ownQueue = concurrent::makeQueue();
        auto executor = std::make_shared<TaskExecutorImpl>(1, ownQueue);
        Occupation occupation(*executor);
        bool hasRun = false;
        auto async = submitAsync(*executor, [&hasRun] {
            hasRun = true;
            return 7;
        });
        auto const handle = async.handle;
        bringAbout(end, async, executor, *ownQueue, [&] { occupation.release(); });
        async.future.wait();
        executor.reset();  // Now no worker holds the exception.
        EXPECT_EQ(endOf(async.future), end == End::DROP_HANDLE ? "7" : "broken")
            << static_cast<int>(end);
        EXPECT_EQ(hasRun, end == End::DROP_HANDLE);
        EXPECT_EQ(async.stop.isRaised(), end == End::CANCEL);
    }
}

TEST_F(SubmitAsyncEndTest, RunningWorkEndsAsItWould) {
    for (End const end : ENDS) {
        for (std::string const how : {"7", "nothing", "thrown"}) {
            auto const ownQueue = concurrent::makeQueue();
            auto executor = std::make_shared<TaskExecutorImpl>(1, ownQueue);
            Gate entered;
            Gate released;
            auto const work = [&] {
                entered.open();
                released.wait();
                if (how == "thrown") {
                    throw std::runtime_error(how);
                }
            };
            auto const run = [&](auto function) {
                auto async = submitAsync(*executor, std::move(function));
                entered.wait();
                bringAbout(end, async, executor, *ownQueue, [&] { released.open(); });
                executor.reset();  // Now no worker holds the exception.
                EXPECT_EQ(endOf(async.future), how) << static_cast<int>(end);
                EXPECT_EQ(async.stop.isRaised(), end == End::CANCEL);
            };
            if (how == "nothing") {
                run(work);
            } else {
                run([&] {
                    work();
                    return 7;
                });
            }
        }
    }
}

TEST_F(SubmitAsyncEndTest, ARunningFunctionSeesTheFlagOnceItsHandleIsCancelled) {
    auto const executor = makeExecutor(1);
    Gate entered;
    std::shared_ptr<concurrent::TaskHandle> handle;
    Gate handleIsSet;
    auto async = submitAsync(*executor, [&](StopFlag const& stop) {
        handleIsSet.wait();
        entered.open();
        test::yieldUntil([&] { return handle->getState() == Executable::CANCELLED; });
        return stop.isRaised() ? 1 : 0;
    });
    handle = async.handle;
    handleIsSet.open();
    entered.wait();
    async.cancel();
    EXPECT_EQ(async.future.get(), 1);
    test::yieldUntil([&] { return handle->getResult() != Executable::NO_RESULT; });
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(SubmitAsyncEndTest, CancelBreaksThePromiseAtOnceWhateverTheWorkersDo) {
    auto const executor = makeExecutor(1);
    Occupation const occupation(*executor);
    auto const held = std::make_shared<int>(1);
    auto async = submitAsync(*executor, [copy = held] { return *copy; });
    EXPECT_EQ(held.use_count(), 2);
    async.cancel();
    EXPECT_EQ(held.use_count(), 1);
    ASSERT_TRUE(isReady(async.future));
    EXPECT_EQ(endOf(async.future), "broken");
    EXPECT_EQ(async.handle->getState(), Executable::CANCELLED);
    async.cancel();  // Once more does no harm.
    auto const noWorkers = makeExecutor(0);
    auto never = submitAsync(*noWorkers, [] {});
    never.cancel();
    EXPECT_EQ(endOf(never.future), "broken");
}

// A cancel that the start of the task overwrites: the handle alone would let the function run.
TEST_F(SubmitAsyncEndTest, WhatWasGivenUpNeverRuns) {
    struct Keeping : concurrent::TaskExecutor {
        std::shared_ptr<concurrent::TaskHandle> submitTask(
            std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority,
            concurrent::Callback const&) override {
            kept = task;
            return std::make_shared<concurrent::TaskHandle>(nullptr);
        }
        std::shared_ptr<concurrent::TaskHandle> submitTask(concurrent::Work const&,
                                                           concurrent::TaskPriority,
                                                           concurrent::Callback const&,
                                                           char const*) override {
            return nullptr;
        }
        bool isIdle() override { return true; }
        std::shared_ptr<concurrent::Task> kept;
    } keeping;
    bool hasRun = false;
    auto async = submitAsync(keeping, [&hasRun] { hasRun = true; });
    async.cancel();
    EXPECT_EQ(keeping.kept->execute(), Executable::ABORTED);
    EXPECT_FALSE(hasRun);
    EXPECT_EQ(endOf(async.future), "broken");
    // Run once, and not a second time.
    auto again = submitAsync(keeping, [&hasRun] { hasRun = !hasRun; });
    EXPECT_EQ(keeping.kept->execute(), Executable::SUCCESS);
    EXPECT_EQ(keeping.kept->execute(), Executable::ABORTED);
    again.cancel();
    EXPECT_TRUE(hasRun);
    EXPECT_EQ(endOf(again.future), "nothing");
}

TEST_F(SubmitAsyncEndTest, RefusedWorkBreaksItsPromiseAtOnce) {
    auto const executor = makeExecutor(1);
    queue->close();
    auto async = submitAsync(*executor, [] { return 1; });
    EXPECT_EQ(async.handle, nullptr);
    ASSERT_TRUE(isReady(async.future));
    EXPECT_EQ(endOf(async.future), "broken");
    EXPECT_FALSE(async.stop.isRaised());
    async.cancel();
    EXPECT_TRUE(async.stop.isRaised());
}

TEST_F(SubmitAsyncEndTest, DestroyingAnAsyncDoesNothing) {
    auto const executor = makeExecutor(1);
    StopFlag flag;
    Gate released;
    Gate done;
    {
        Occupation occupation(*executor);
        auto running = submitAsync(*executor, [&](StopFlag const& stop) {
            released.wait();
            EXPECT_FALSE(stop.isRaised());
            done.open();
        });
        flag = running.stop;
        submitAsync(*executor, [] { return 1; });
    }
    EXPECT_FALSE(flag.isRaised());
    released.open();
    done.wait();
}

TEST_F(SubmitAsyncEndTest, AThreadThatEndsInTheFunctionBreaksThePromise) {
    // The worker that ended so is joined as any other.
    auto executor = makeExecutor(1);
    auto const held = std::make_shared<int>(1);
    auto async = submitAsync(*executor, [copy = held] {
        pthread_exit(nullptr);
        return *copy;
    });
    async.future.wait();
    executor.reset();
    EXPECT_EQ(endOf(async.future), "broken");
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(SubmitAsyncEndTest, AnAsyncCanBeMovedAndCancelledAfterwards) {
    auto const executor = makeExecutor(1);
    Occupation const occupation(*executor);
    auto first = submitAsync(*executor, [] { return 1; });
    Async<int> second = std::move(first);
    first.cancel();  // The flag is shared still, and the function with it.
    EXPECT_TRUE(second.stop.isRaised());
    EXPECT_EQ(endOf(second.future), "broken");
    second = submitAsync(*executor, [] { return 2; });
    second.cancel();
    EXPECT_EQ(endOf(second.future), "broken");
    Async<int>().cancel();
}

TEST_F(SubmitAsyncEndTest, CopiesOfAFlagShareIt) {
    StopFlag flag;
    StopFlag const copy = flag;
    StopFlag moved = std::move(flag);
    StopFlag const other;
    EXPECT_FALSE(copy.isRaised());
    moved.raise();
    EXPECT_TRUE(copy.isRaised() && flag.isRaised());
    EXPECT_FALSE(other.isRaised());
    flag = other;
    EXPECT_FALSE(flag.isRaised());
}

TEST_F(SubmitAsyncEndTest, ExecutorsDestroyedAtRandomMoments) {
    RandomSource random(test::runSeed());
    int const rounds = test::SANITIZED ? 2000 : test::scaled(2000);
    int counts[3] = {};
    for (int round = 0; round < rounds; ++round) {
        restartDeadline();
        auto ownQueue = concurrent::makeQueue();
        auto executor = std::make_shared<TaskExecutorImpl>(1 + random.below(2), ownQueue);
        bool const isShared = random.oneIn(2);
        std::vector<Async<int>> asyncs;
        int const size = random.between(1, 12);
        for (int i = 0; i < size; ++i) {
            asyncs.push_back(submitAsync(*executor, [i](StopFlag const& stop) {
                if (i % 4 == 3 && !stop.isRaised()) {
                    throw std::runtime_error("thrown");
                }
                return i;
            }));
        }
        auto const moment = random.below(2000);
        auto const cancelled = random.below(16);
        Gate begin;
        std::thread cancelling([&] {
            begin.wait();
            if (cancelled < asyncs.size()) {
                asyncs[cancelled].cancel();
            }
        });
        begin.open();
        for (std::uint32_t step = 0; step < moment; ++step) {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        if (isShared) {
            ownQueue->close();
        }
        executor.reset();
        // Both are used up before the futures are: nothing is left that could still end them.
        cancelling.join();
        ownQueue.reset();
        for (std::size_t i = 0; i < asyncs.size(); ++i) {
            ASSERT_TRUE(isReady(asyncs[i].future)) << test::seedNote() << ", round " << round;
            std::string const end = endOf(asyncs[i].future);
            bool const isValue = end == std::to_string(i);
            ASSERT_TRUE(isValue || end == "broken" || (i % 4 == 3 && end == "thrown")) << end;
            ++counts[isValue ? 0 : end == "broken" ? 1 : 2];
        }
    }
    if (rounds >= 100) {  // The moments are spread.
        EXPECT_GT(counts[0], 0);
        EXPECT_GT(counts[1], 0);
        EXPECT_GT(counts[2], 0);
    }
}

}  // namespace
}  // namespace ovra::extra
