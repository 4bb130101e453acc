#include <ovra/concurrent/internal/TaskEnd.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {
namespace {

class TaskEndTest : public test::BoundedTest {
protected:
    std::unique_ptr<TaskEnd> end = std::make_unique<TaskEnd>();
};

std::future_errc errorOf(std::function<void()> const& action) {
    try {
        action();
    } catch (std::future_error const& error) {
        return static_cast<std::future_errc>(error.code().value());
    }
    return std::future_errc();
}

bool isReady(std::future<bool> const& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// A thread that waits for an end, and may be cancelled.
class Waiting {
public:
    explicit Waiting(TaskEnd& end, std::function<void()> before = {})
        : thread([this, &end, before] {
              test::AtEnd const atEnd([this] { ended = true; });
              if (before) {
                  before();
              }
              end.wait();
              returned = true;
          }) {}
    Waiting(Waiting const&) = delete;
    Waiting& operator=(Waiting const&) = delete;
    ~Waiting() { join(); }

    void cancel() { pthread_cancel(thread.native_handle()); }
    void join() {
        if (thread.joinable()) {
            thread.join();
        }
    }

    std::atomic<bool> returned{false};
    std::atomic<bool> ended{false};

private:
    std::thread thread;
};

// --- each order

TEST_F(TaskEndTest, FulfilmentReleasesTheThreadThatWaits) {
    test::Gate asleep;
    test::ThreadCalls calls;
    calls.onSemaphoreWait = [&](sem_t*) { asleep.open(); };
    calls.install();
    int effect = 0;
    Waiting waiting(*end);
    asleep.wait();
    EXPECT_FALSE(waiting.returned);
    effect = 5;

    end->fulfil();
    waiting.join();

    EXPECT_TRUE(waiting.returned);
    EXPECT_EQ(effect, 5);
}

TEST_F(TaskEndTest, WaitAfterTheFulfilmentReturnsAtOnce) {
    end->fulfil();
    int waits = 0;
    test::ThreadCalls calls;
    calls.onSemaphoreWait = [&](sem_t*) { ++waits; };
    calls.install();

    end->wait();

    EXPECT_EQ(waits, 0);
}

TEST_F(TaskEndTest, FutureBecomesReadyWithTrue) {
    auto future = end->future();
    EXPECT_FALSE(isReady(future));

    end->fulfil();

    ASSERT_TRUE(isReady(future));
    EXPECT_TRUE(future.get());
}

TEST_F(TaskEndTest, FutureAfterTheFulfilmentIsReady) {
    end->fulfil();

    auto future = end->future();

    ASSERT_TRUE(isReady(future));
    EXPECT_TRUE(future.get());
}

TEST_F(TaskEndTest, FutureOutlivesTheEnd) {
    auto future = end->future();
    end->fulfil();
    end.reset();

    EXPECT_TRUE(future.get());
}

TEST_F(TaskEndTest, FutureMayBeDroppedBeforeTheFulfilment) {
    end->future();

    end->fulfil();

    EXPECT_EQ(errorOf([&] { end->fulfil(); }), std::future_errc::promise_already_satisfied);
}

TEST_F(TaskEndTest, EndThatNobodyWaitsForNeedsNothing) {
    end->fulfil();
    end.reset();
    std::make_unique<TaskEnd>().reset();
}

// --- twice

TEST_F(TaskEndTest, SecondFulfilmentIsRefused) {
    end->fulfil();
    EXPECT_EQ(errorOf([&] { end->fulfil(); }), std::future_errc::promise_already_satisfied);
    EXPECT_EQ(errorOf([&] { end->fulfil(); }), std::future_errc::promise_already_satisfied);

    end->wait();
}

TEST_F(TaskEndTest, SecondFulfilmentIsRefusedAfterAWaitOrAFuture) {
    auto future = end->future();
    end->fulfil();
    EXPECT_EQ(errorOf([&] { end->fulfil(); }), std::future_errc::promise_already_satisfied);

    TaskEnd other;
    {
        Waiting const waiting(other);
        other.fulfil();
    }
    EXPECT_EQ(errorOf([&] { other.fulfil(); }), std::future_errc::promise_already_satisfied);
}

TEST_F(TaskEndTest, OnlyOneWaitOrFutureIsGranted) {
    constexpr auto TWICE = std::future_errc::future_already_retrieved;
    auto const wait = [](TaskEnd& of) { of.wait(); };
    auto const future = [](TaskEnd& of) { of.future(); };
    for (auto const& first : {std::function<void(TaskEnd&)>(wait), {future}}) {
        for (auto const& second : {std::function<void(TaskEnd&)>(wait), {future}}) {
            TaskEnd fulfilled;
            fulfilled.fulfil();
            first(fulfilled);
            EXPECT_EQ(errorOf([&] { second(fulfilled); }), TWICE);
            EXPECT_EQ(errorOf([&] { second(fulfilled); }), TWICE);
        }
        TaskEnd open;
        auto const granted = open.future();
        EXPECT_EQ(errorOf([&] { first(open); }), TWICE);
        open.fulfil();
        EXPECT_TRUE(isReady(granted));
        EXPECT_EQ(errorOf([&] { first(open); }), TWICE);
    }
}

TEST_F(TaskEndTest, RefusedWaitLeavesTheFirstOneAlone) {
    test::Gate asleep;
    test::ThreadCalls calls;
    calls.onSemaphoreWait = [&](sem_t*) { asleep.open(); };
    calls.install();
    Waiting waiting(*end);
    asleep.wait();

    EXPECT_THROW(end->wait(), std::future_error);
    EXPECT_THROW(end->future(), std::future_error);
    end->fulfil();
    waiting.join();

    EXPECT_TRUE(waiting.returned);
}

// --- broken, and without memory

TEST_F(TaskEndTest, EndThatIsDestroyedUnfulfilledBreaksItsPromise) {
    auto future = end->future();
    end.reset();

    EXPECT_EQ(errorOf([&] { future.get(); }), std::future_errc::broken_promise);
}

TEST_F(TaskEndTest, FutureWithoutMemoryLeavesTheWaitFree) {
    {
        test::ThreadCalls calls;
        calls.onAllocate = [](std::size_t) { return true; };
        calls.install();
        EXPECT_THROW(end->future(), std::bad_alloc);
    }
    auto const future = end->future();
    end->fulfil();
    EXPECT_TRUE(isReady(future));
}

TEST_F(TaskEndTest, WaitAndFulfilmentNeedNoMemory) {
    test::Gate started;
    test::Gate proceed;
    Waiting waiting(*end, [&] {
        started.open();
        proceed.wait();
    });
    started.wait();
    test::ThreadCalls calls;
    calls.onAllocate = [](std::size_t) { return true; };
    calls.install();

    proceed.open();
    end->fulfil();
    waiting.join();

    EXPECT_TRUE(waiting.returned);
}

// --- a thread that is cancelled while it waits

TEST_F(TaskEndTest, WaiterCancelledBeforehandTakesItsAddressBack) {
    int posts = 0;
    test::ThreadCalls calls;
    calls.onSemaphorePost = [&](sem_t*) { ++posts; };
    calls.install();
    Waiting waiting(*end, [] { pthread_cancel(pthread_self()); });
    waiting.join();
    end->fulfil();

    EXPECT_FALSE(waiting.returned);
    EXPECT_EQ(posts, 0);
}

TEST_F(TaskEndTest, WaiterCancelledAfterTheFulfilmentHasReturned) {
    end->fulfil();
    Waiting waiting(*end, [] { pthread_cancel(pthread_self()); });
    waiting.join();

    EXPECT_TRUE(waiting.returned) << "nothing was left to wait for";
}

TEST_F(TaskEndTest, CancelledWaiterTakesItsAddressBack) {
    test::Gate asleep;
    int posts = 0;
    test::ThreadCalls calls;
    calls.onSemaphoreWait = [&](sem_t*) { asleep.open(); };
    calls.onSemaphorePost = [&](sem_t*) { ++posts; };
    calls.install();
    Waiting waiting(*end);
    asleep.wait();

    waiting.cancel();
    waiting.join();
    end->fulfil();

    EXPECT_FALSE(waiting.returned);
    EXPECT_EQ(posts, 0);
    EXPECT_THROW(end->wait(), std::future_error) << "the wait was granted once";
}

TEST_F(TaskEndTest, WaiterCancelledAtTheFulfilmentStaysUntilItWasPosted) {
    std::atomic<int> waits{0};
    test::Gate asleep;
    Waiting* waiter = nullptr;
    bool stayed = false;
    test::ThreadCalls calls;
    calls.onSemaphoreWait = [&](sem_t*) {
        if (++waits == 1) {
            asleep.open();
        }
    };
    calls.onSemaphorePost = [&](sem_t*) {
        // The end is fulfilled, and the semaphore not posted.
        waiter->cancel();
        test::yieldUntil([&] { return waits == 2 || waiter->ended; });
        stayed = !waiter->ended;
    };
    calls.install();
    Waiting waiting(*end);
    waiter = &waiting;
    asleep.wait();

    end->fulfil();
    waiting.join();

    EXPECT_TRUE(stayed);
    EXPECT_EQ(waits, 2);
    EXPECT_FALSE(waiting.returned);
}

TEST_F(TaskEndTest, WaiterMayBeCancelledAtAnyMoment) {
    for (int round = 0; round < test::scaled(1000); ++round) {
        TaskEnd shared;
        // No gate: to wait at one is to be cancelled there.
        std::atomic<int> missing{3};
        auto const start = [&missing] {
            --missing;
            test::yieldUntil([&] { return missing == 0; });
        };
        Waiting waiting(shared, start);
        std::thread canceller([&] {
            start();
            waiting.cancel();
        });
        start();
        shared.fulfil();
        canceller.join();
        waiting.join();
        ASSERT_THROW(shared.fulfil(), std::future_error);
    }
}

// --- at once

TEST_F(TaskEndTest, OneOfSeveralThreadsFulfilsAndOneMayWait) {
    constexpr int EACH = 2;
    for (int round = 0; round < test::scaled(1000); ++round) {
        TaskEnd shared;
        test::Gate start(2 * EACH);
        std::atomic<int> fulfilled{0};
        std::atomic<int> waited{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < EACH; ++i) {
            threads.emplace_back([&] {
                start.open();
                start.wait();
                try {
                    shared.fulfil();
                    ++fulfilled;
                } catch (std::future_error const&) {
                }
            });
            threads.emplace_back([&, asksForFuture = (round + i) % 2 == 0] {
                start.open();
                start.wait();
                try {
                    if (asksForFuture) {
                        shared.future().get();
                    } else {
                        shared.wait();
                    }
                    ++waited;
                } catch (std::future_error const&) {
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(fulfilled, 1);
        ASSERT_EQ(waited, 1);
    }
}

}  // namespace
}  // namespace ovra::concurrent
