#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SubmittedTaskEndTest : public test::BoundedTest {};

// --- promise

TEST_F(SubmittedTaskEndTest, PromiseCanBeFulfilledOnce) {
    auto const task = submission();
    auto future = task->getFuture();
    task->setPromiseValue();

    test::LogRecorder recorder(log::ERROR);
    // With no lock held: a sink may ask for what it likes.
    recorder.onLine([&](test::LogLine const&) { task->getState(); });
    try {
        task->setPromiseValue();
        ADD_FAILURE() << "fulfilled twice";
    } catch (std::future_error const& e) {
        EXPECT_EQ(e.code(), std::future_errc::promise_already_satisfied);
    }
    EXPECT_THAT(recorder.texts(),
                ElementsAre("[SubmittedTask::setPromiseValue():ERROR] A task has come to its end a "
                            "second time: submit each SubmittedTask once."));
    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskEndTest, FutureCanBeTakenOnce) {
    auto const task = submission();
    auto future = task->getFuture();

    try {
        task->getFuture();
        ADD_FAILURE() << "taken twice";
    } catch (std::future_error const& e) {
        EXPECT_EQ(e.code(), std::future_errc::future_already_retrieved);
    }
    task->setPromiseValue();
    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskEndTest, FutureIsTrueAfterAFailure) {
    auto const task = submission(give(Executable::FAILURE));
    auto future = task->getFuture();

    task->execute();

    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskEndTest, FutureCanBeTakenAfterTheEnd) {
    auto const task = submission();
    task->execute();

    EXPECT_TRUE(task->getFuture().get());
}

// --- destruction

TEST_F(SubmittedTaskEndTest, PromiseIsBrokenByDestruction) {
    auto task = submission();
    auto future = task->getFuture();

    task.reset();

    try {
        future.get();
        ADD_FAILURE() << "not broken";
    } catch (std::future_error const& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

TEST_F(SubmittedTaskEndTest, DestructionIsSilentAndLeavesTheHandleAlone) {
    auto task = submission();
    auto const handle = linkHandle(task);
    test::LogRecorder recorder;

    task.reset();

    EXPECT_THAT(recorder.texts(), IsEmpty());
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(handle->getException(), nullptr);
}

// Notifies when a control block, kept by weak references alone, is given back.
template <typename T>
struct NotifyingAllocator {
    using value_type = T;

    explicit NotifyingAllocator(std::function<void()>* toCall) : notify(toCall) {}
    template <typename U>
    explicit NotifyingAllocator(NotifyingAllocator<U> const& other) : notify(other.notify) {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) {
        (*notify)();
        std::allocator<T>().deallocate(memory, count);
    }
    template <typename U>
    friend bool operator==(NotifyingAllocator const&, NotifyingAllocator<U> const&) {
        return true;
    }
    template <typename U>
    friend bool operator!=(NotifyingAllocator const&, NotifyingAllocator<U> const&) {
        return false;
    }

    std::function<void()>* notify;
};

TEST_F(SubmittedTaskEndTest, ReleasesPromiseCallbackHandleAndTaskInThisOrder) {
    std::vector<std::string> order;
    std::future<bool> future;
    std::function<void()> notifyOfHandle = [&order] { order.emplace_back("handle"); };

    auto work =
        std::make_shared<NamedTask>([end = test::atEnd([&order] { order.emplace_back("task"); })] {
            return Executable::SUCCESS;
        });
    Callback callback = [end = test::atEnd([&] {
                             bool const broken = future.wait_for(std::chrono::seconds(0)) ==
                                                 std::future_status::ready;
                             order.emplace_back(broken ? "callback after promise" : "callback");
                         })](std::shared_ptr<Task> const&) {};
    auto task = std::make_shared<SubmittedTask>(std::move(work), NORMAL, std::move(callback));
    callback = nullptr;
    future = task->getFuture();
    {
        auto const handle = std::allocate_shared<TaskHandle>(
            NotifyingAllocator<TaskHandle>(&notifyOfHandle), nullptr);
        task->setHandle(handle);
    }
    ASSERT_THAT(order, IsEmpty());

    task.reset();

    EXPECT_THAT(order, ElementsAre("callback after promise", "handle", "task"));
}

TEST_F(SubmittedTaskEndTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::getRank), 2u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::getPriority), 3u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::setState), 4u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::setResult), 5u);
    EXPECT_EQ(test::virtualSlotCount("SubmittedTask"), 6u);
}

}  // namespace
}  // namespace ovra::concurrent
