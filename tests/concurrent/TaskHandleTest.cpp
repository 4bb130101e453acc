#include <ovra/concurrent/TaskHandle.h>

#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<TaskHandle>);

using TaskHandleTest = test::BoundedTest;

TEST_F(TaskHandleTest, AsksTheProxyOnceForStateThenResult) {
    std::vector<std::string> calls;
    auto const proxy = std::make_shared<SubmittedTaskProxy>();
    proxy->getState = [&calls] {
        calls.emplace_back("state");
        return Executable::READY;
    };
    proxy->getResult = [&calls] {
        calls.emplace_back("result");
        return Executable::REPEAT;
    };

    TaskHandle const handle(proxy);
    EXPECT_EQ(handle.getState(), Executable::READY);
    EXPECT_EQ(handle.getResult(), Executable::REPEAT);
    EXPECT_FALSE(handle.isDone());

    EXPECT_THAT(calls, ElementsAre("state", "result"));
}

TEST_F(TaskHandleTest, OfAnEmptyProxyIsDoneAndDoesNothing) {
    TaskHandle handle(std::make_shared<SubmittedTaskProxy>());

    EXPECT_EQ(handle.getState(), Executable::DONE);
    EXPECT_EQ(handle.getResult(), Executable::SUCCESS);
    EXPECT_TRUE(handle.isDone());
    EXPECT_EQ(handle.getException(), nullptr);
    handle.cancel();
    handle.updatePriority(HIGH);
    handle.waitForCompletion();
    EXPECT_EQ(handle.getState(), Executable::DONE);
}

TEST_F(TaskHandleTest, EachEmptyMemberOfAProxyIsMissedAlone) {
    auto const withoutState = std::make_shared<SubmittedTaskProxy>();
    withoutState->getResult = [] { return Executable::ABORTED; };
    auto const withoutResult = std::make_shared<SubmittedTaskProxy>();
    withoutResult->getState = [] { return Executable::EXECUTING; };

    EXPECT_EQ(TaskHandle(withoutState).getState(), Executable::DONE);
    EXPECT_EQ(TaskHandle(withoutState).getResult(), Executable::ABORTED);
    EXPECT_EQ(TaskHandle(withoutResult).getState(), Executable::EXECUTING);
    EXPECT_EQ(TaskHandle(withoutResult).getResult(), Executable::SUCCESS);
}

TEST_F(TaskHandleTest, OfNoProxyIsDoneAndDoesNothing) {
    TaskHandle handle(nullptr);

    EXPECT_EQ(handle.getState(), Executable::DONE);
    EXPECT_EQ(handle.getResult(), Executable::SUCCESS);
    handle.cancel();
    handle.updatePriority(HIGH);
    handle.waitForCompletion();
}

TEST_F(TaskHandleTest, PassesItsOperationsToTheProxy) {
    std::vector<std::string> calls;
    auto const proxy = std::make_shared<SubmittedTaskProxy>();
    proxy->cancel = [&calls] { calls.emplace_back("cancel"); };
    proxy->updatePriority = [&calls](TaskPriority priority) {
        calls.push_back("priority " + std::to_string(priority));
    };
    proxy->waitForCompletion = [&calls] { calls.emplace_back("wait"); };
    TaskHandle handle(proxy);

    handle.updatePriority(HIGH);
    handle.updatePriority(static_cast<TaskPriority>(-3));
    handle.cancel();
    handle.waitForCompletion();

    EXPECT_THAT(calls, ElementsAre("priority 3", "priority -3", "cancel", "wait"));
    EXPECT_EQ(handle.getState(), Executable::DONE) << "only the task changes the state";
}

TEST_F(TaskHandleTest, SharesItsProxy) {
    auto const proxy = std::make_shared<SubmittedTaskProxy>();
    {
        TaskHandle const handle(proxy);
        EXPECT_EQ(proxy.use_count(), 2);
    }
    EXPECT_EQ(proxy.use_count(), 1);
}

TEST_F(TaskHandleTest, KeepsWhatIsPushed) {
    TaskHandle handle(nullptr);
    auto const e = std::make_exception_ptr(std::runtime_error("x"));

    handle.setState(Executable::READY);
    handle.setResult(Executable::ABORTED);
    handle.setException(e);

    EXPECT_EQ(handle.getState(), Executable::READY);
    EXPECT_EQ(handle.getResult(), Executable::ABORTED);
    EXPECT_EQ(handle.getException(), e);
    handle.setException(nullptr);
    EXPECT_EQ(handle.getException(), nullptr);
}

TEST_F(TaskHandleTest, IsDoneWhenDoneOrCancelled) {
    TaskHandle handle(nullptr);
    for (int state = 0; state <= 6; ++state) {
        handle.setState(static_cast<Executable::State>(state));
        EXPECT_EQ(handle.isDone(), state == 4 || state == 5) << state;
    }
}

TEST_F(TaskHandleTest, ReleasesTheExceptionBeforeTheProxy) {
    std::vector<std::string> order;
    struct HoldingError : std::runtime_error {
        explicit HoldingError(std::shared_ptr<void> toHold)
            : std::runtime_error("holding"), held(std::move(toHold)) {}
        std::shared_ptr<void> held;
    };
    auto proxy = std::make_shared<SubmittedTaskProxy>();
    proxy->cancel = [end = test::atEnd([&order] { order.emplace_back("proxy"); })] {};
    auto handle = std::make_shared<TaskHandle>(proxy);
    proxy.reset();
    handle->setException(std::make_exception_ptr(
        HoldingError(test::atEnd([&order] { order.emplace_back("exception"); }))));
    ASSERT_THAT(order, IsEmpty());

    handle.reset();

    EXPECT_THAT(order, ElementsAre("exception", "proxy"));
}

TEST_F(TaskHandleTest, OnlyItsDestructorIsVirtual) {
    EXPECT_EQ(test::virtualSlotCount("TaskHandle"), 2u);
}

TEST_F(TaskHandleTest, SignalsDoNotEndAWait) {
    static sem_t handled;  // May be posted from a signal handler, unlike a gate.
    ASSERT_EQ(sem_init(&handled, 0, 0), 0);
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { sem_post(&handled); };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);

    auto const task = submission();
    auto const handle = linkHandle(task);
    std::atomic<bool> isOver{false};
    std::thread waiter([&] {
        handle->waitForCompletion();
        isOver = true;
    });
    // The first may come before the wait; after some of them the waiter can be nowhere else.
    // (A checker of threads may hold a signal back until another one comes.)
    for (int i = 0; i < 50; ++i) {
        while (sem_trywait(&handled) != 0) {
            ASSERT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
            std::this_thread::yield();
        }
    }
    EXPECT_FALSE(isOver);
    task->setPromiseValue();
    waiter.join();
    EXPECT_TRUE(isOver);
    EXPECT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST_F(TaskHandleTest, ThreadCanBeCancelledWhileItWaits) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    // On a stack of the test's own, to see whether anybody still writes there.
    constexpr std::size_t STACK_SIZE = 4 << 20;
    std::vector<unsigned char> stack(STACK_SIZE + 4096);
    auto const misaligned = reinterpret_cast<std::uintptr_t>(stack.data()) % 4096;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstack(&attributes, stack.data() + 4096 - misaligned, STACK_SIZE), 0);

    pthread_t thread = {};
    auto const wait = [](void* waitedFor) -> void* {
        static_cast<TaskHandle*>(waitedFor)->waitForCompletion();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, wait, handle.get()), 0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* end = nullptr;
    ASSERT_EQ(pthread_join(thread, &end), 0);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(end, PTHREAD_CANCELED);

    std::fill(stack.begin(), stack.end(), static_cast<unsigned char>(0x55));
    task->setPromiseValue();
    EXPECT_EQ(std::count(stack.begin(), stack.end(), 0x55),
              static_cast<std::ptrdiff_t>(stack.size()));
    EXPECT_EQ(task.use_count(), 1) << "the wait still holds it";
}

}  // namespace
}  // namespace ovra::concurrent
