#include <ovra/extra/SubmitAsync.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/AsyncSupport.h>
#include <tests/fs/Allocations.h>
#include <tests/support/LogRecorder.h>

namespace ovra::extra {
namespace {

using concurrent::Executable;
using concurrent::Occupation;
using concurrent::TaskExecutor;
using ::testing::Contains;

class SubmitAsyncTest : public concurrent::ExecutorTest {
protected:
    // Afterwards no worker still holds an exception, whose count ThreadSanitizer does not see.
    void waitForTheWorker() { executor.reset(); }

    test::LogRecorder const recorder;  // Made before the worker.
    std::shared_ptr<concurrent::TaskExecutorImpl> executor = makeExecutor(1);
};

int seven() {
    return 7;
}

TEST_F(SubmitAsyncTest, TheFutureHasTheValue) {
    EXPECT_EQ(submitAsync(*executor, [] { return std::string("text"); }).future.get(), "text");
    EXPECT_EQ(submitAsync(*executor, seven).future.get(), 7);
    EXPECT_EQ(submitAsync(*executor, std::function<int()>(seven)).future.get(), 7);
    auto const moveOnly = submitAsync(*executor, [] { return std::make_unique<int>(3); });
    static_assert(std::is_same_v<decltype(moveOnly.future), std::future<std::unique_ptr<int>>>);
}

TEST_F(SubmitAsyncTest, NothingAndReferencesAreValuesToo) {
    int called = 0;
    auto nothing = submitAsync(*executor, [&called] { called = 1; });
    static_assert(std::is_same_v<decltype(nothing), Async<void>>);
    nothing.future.get();
    EXPECT_EQ(called, 1);
    auto reference = submitAsync(*executor, [&called]() -> int& { return called; });
    static_assert(std::is_same_v<decltype(reference), Async<int&>>);
    EXPECT_EQ(&reference.future.get(), &called);
    auto text = std::string("long enough to be allocated");
    auto moved = submitAsync(*executor, [&text]() -> std::string&& { return std::move(text); });
    static_assert(std::is_same_v<decltype(moved), Async<std::string>>);
    EXPECT_EQ(moved.future.get(), "long enough to be allocated");
    auto constant = submitAsync(*executor, []() -> std::string const { return "constant"; });
    static_assert(std::is_same_v<decltype(constant), Async<std::string>>);
    EXPECT_EQ(constant.future.get(), "constant");
}

TEST_F(SubmitAsyncTest, MoveOnlyWorkIsMovedAndNothingIsCopied) {
    auto number = std::make_unique<int>(5);
    auto async = submitAsync(*executor, [held = std::move(number)] { return *held; });
    EXPECT_EQ(async.future.get(), 5);

    int copies = 0;
    auto counted = submitAsync(*executor, [held = Counted(&copies)] { return held; });
    // The value is a copy of what was captured, and the only one.
    EXPECT_EQ(counted.future.get().copies, &copies);
    EXPECT_EQ(copies, 1);
}

TEST_F(SubmitAsyncTest, TheFormWithTheFlagIsPreferred) {
    struct Both {
        char const* operator()() const { return "without"; }
        char const* operator()(StopFlag const&) const { return "with"; }
    };
    EXPECT_STREQ(submitAsync(*executor, Both()).future.get(), "with");
    auto const count = [](auto const&... arguments) { return sizeof...(arguments); };
    EXPECT_EQ(submitAsync(*executor, count).future.get(), 1u);
    auto const raised = [](StopFlag flag) { return flag.isRaised(); };
    EXPECT_FALSE(submitAsync(*executor, raised).future.get());
}

TEST_F(SubmitAsyncTest, AReturnedResultIsAValueLikeAnyOther) {
    for (auto const result : {Executable::REPEAT, Executable::FAILURE, Executable::ABORTED}) {
        int calls = 0;
        Occupation occupation(*executor);
        auto async = submitAsync(*executor, [&calls, result] {
            ++calls;
            return result;
        });
        occupation.release();
        async.handle->waitForCompletion();
        EXPECT_EQ(async.future.get(), result);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(async.handle->getResult(), Executable::SUCCESS);
        EXPECT_EQ(async.handle->getState(), Executable::DONE);
    }
}

TEST_F(SubmitAsyncTest, FutureHandleAndLogHaveTheVeryException) {
    struct Special : std::runtime_error {
        using std::runtime_error::runtime_error;
    };
    Occupation occupation(*executor);
    Special const* thrown = nullptr;
    auto async = submitAsync(
        *executor,
        [&thrown]() -> int {
            try {
                throw Special("special");
            } catch (Special const& special) {
                thrown = &special;
                throw;
            }
        },
        concurrent::NORMAL, "throwing");
    occupation.release();
    async.future.wait();
    waitForTheWorker();
    EXPECT_EQ(async.handle->getResult(), Executable::FAILURE);
    try {
        async.future.get();
        ADD_FAILURE();
    } catch (Special const& special) {
        EXPECT_EQ(&special, thrown);
    }
    try {
        std::rethrow_exception(async.handle->getException());
    } catch (Special const& special) {
        EXPECT_EQ(&special, thrown);
    }
    EXPECT_THAT(recorder.texts(),
                Contains("[SubmittedTask::execute():WARNING] Caught exception during running of "
                         "'throwing'. (special)"));
}

TEST_F(SubmitAsyncTest, AnythingCanBeThrown) {
    auto async = submitAsync(*executor, [] { throw 42; });
    async.future.wait();
    waitForTheWorker();
    try {
        async.future.get();
        ADD_FAILURE();
    } catch (int number) {
        EXPECT_EQ(number, 42);
    }
}

TEST_F(SubmitAsyncTest, AValueThatCannotBeMovedIntoTheFutureIsAnException) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer's pthread_once lets no exception through.";
#endif
    struct Stubborn {
        Stubborn() = default;
        Stubborn(Stubborn const&) { throw std::length_error("stubborn"); }
        Stubborn& operator=(Stubborn const&) = delete;
        ~Stubborn() = default;
    };
    auto async = submitAsync(*executor, [] { return Stubborn(); });
    async.future.wait();
    waitForTheWorker();
    EXPECT_THROW(async.future.get(), std::length_error);
}

// In each way in which work can end.
TEST_F(SubmitAsyncTest, TheFunctionIsDestroyedBeforeTheFutureIsReady) {
    enum Way { RETURNS, THROWS, DROPPED, ABANDONED };
    auto const check = [](Way way, auto result) {
        auto const ownQueue = concurrent::makeQueue();
        auto const ownExecutor = std::make_shared<concurrent::TaskExecutorImpl>(1, ownQueue);
        Occupation occupation(*ownExecutor);
        std::function<bool()> isFutureReady;
        bool isDestroyed = false;
        auto held = test::atEnd([&] {
            isDestroyed = true;
            EXPECT_FALSE(isFutureReady()) << way;
        });
        auto async = submitAsync(*ownExecutor, [way, result, held = std::move(held)] {
            if (way == THROWS) {
                throw std::runtime_error("thrown");
            }
            return result();
        });
        isFutureReady = [&] { return isReady(async.future); };
        if (way == DROPPED) {
            ownQueue->close();
        } else if (way == ABANDONED) {
            async.cancel();
        }
        occupation.release();
        async.future.wait();
        EXPECT_TRUE(isDestroyed) << way;
    };
    for (Way const way : {RETURNS, THROWS, DROPPED, ABANDONED}) {
        check(way, [] {});
        check(way, [] { return 7; });
        check(way, []() -> int& {
            static int number = 0;
            return number;
        });
    }
}

TEST_F(SubmitAsyncTest, ACapturedObjectIsGoneWithTheValueOfIt) {
    auto held = std::make_shared<int>(1);
    std::weak_ptr<int> const seen = held;
    auto async = submitAsync(*executor, [held = std::move(held)] { return *held; });
    EXPECT_EQ(async.future.get(), 1);
    EXPECT_TRUE(seen.expired());
}

TEST_F(SubmitAsyncTest, WaitingIsTheStandards) {
    Occupation occupation(*executor);
    auto async = submitAsync(*executor, seven);
    EXPECT_EQ(async.future.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
    occupation.release();
    auto const shared = async.future.share();
    EXPECT_EQ(shared.get(), 7);
    EXPECT_EQ(shared.get(), 7);
}

TEST_F(SubmitAsyncTest, PriorityAndNameArePassedOn) {
    struct Recording : TaskExecutor {
        std::shared_ptr<concurrent::TaskHandle> submitTask(
            std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority given,
            concurrent::Callback const& callback) override {
            name = task->name();
            priority = given;
            EXPECT_FALSE(callback);
            return nullptr;
        }
        std::shared_ptr<concurrent::TaskHandle> submitTask(concurrent::Work const&,
                                                           concurrent::TaskPriority,
                                                           concurrent::Callback const&,
                                                           char const*) override {
            ADD_FAILURE();
            return nullptr;
        }
        bool isIdle() override { return true; }
        char const* name = "none";
        concurrent::TaskPriority priority{};
    } recording;
    submitAsync(recording, seven);
    EXPECT_EQ(recording.name, nullptr);
    EXPECT_EQ(recording.priority, concurrent::NORMAL);
    char const name[] = "name";
    submitAsync(recording, seven, concurrent::HIGH, name);
    EXPECT_EQ(recording.name, name);
    EXPECT_EQ(recording.priority, concurrent::HIGH);
}

TEST_F(SubmitAsyncTest, ALackOfMemoryQueuesNothing) {
    Occupation const occupation(*executor);
    bool hasFailed = true;
    for (int allowed = 0; hasFailed; ++allowed) {
        auto held = std::make_shared<int>(1);
        std::weak_ptr<int> const seen = held;
        fs::test::Allocations allocations;
        allocations.failAfter(allowed);
        try {
            auto const async = submitAsync(*executor, [held = std::move(held)] { return *held; });
            hasFailed = allocations.hasFailed();
            EXPECT_FALSE(hasFailed);
        } catch (std::bad_alloc const&) {
            EXPECT_TRUE(executor->isIdle());
            EXPECT_TRUE(seen.expired());
        }
    }
}

}  // namespace
}  // namespace ovra::extra
