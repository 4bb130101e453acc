#include <ovra/concurrent/TaskHandle.h>

#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <future>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
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

static_assert(std::has_virtual_destructor_v<TaskHandle>);
static_assert(!std::is_polymorphic_v<SubmittedTaskProxy>);
static_assert(std::is_default_constructible_v<SubmittedTaskProxy>);
static_assert(std::is_aggregate_v<SubmittedTaskProxy>, "a plain record");
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::getState), std::function<Executable::State()>>);
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::getResult), std::function<Executable::Result()>>);
static_assert(std::is_same_v<decltype(SubmittedTaskProxy::updatePriority),
                             std::function<void(TaskPriority)>>);
static_assert(std::is_same_v<decltype(SubmittedTaskProxy::cancel), std::function<void()>>);
static_assert(
    std::is_same_v<decltype(SubmittedTaskProxy::waitForCompletion), std::function<void()>>);

class SubmittedTaskProxyTest : public test::BoundedTest {};
class TaskHandleTest : public test::BoundedTest {};

char const* const WAITED_TWICE =
    "[SubmittedTask::getFuture():ERROR] A task was waited for, or its future was asked for, a "
    "second time: wait once.";

std::future_errc errorOf(std::function<void()> const& action) {
    try {
        action();
    } catch (std::future_error const& e) {
        return static_cast<std::future_errc>(e.code().value());
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

// --- the proxy

TEST_F(SubmittedTaskProxyTest, MembersStandInTheirOrder) {
    SubmittedTaskProxy proxy;
    EXPECT_LT(static_cast<void*>(&proxy.getState), static_cast<void*>(&proxy.getResult));
    EXPECT_LT(static_cast<void*>(&proxy.getResult), static_cast<void*>(&proxy.updatePriority));
    EXPECT_LT(static_cast<void*>(&proxy.updatePriority), static_cast<void*>(&proxy.cancel));
    EXPECT_LT(static_cast<void*>(&proxy.cancel), static_cast<void*>(&proxy.waitForCompletion));
}

TEST_F(SubmittedTaskProxyTest, ReadsTheLiveTask) {
    auto const task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);

    task->setState(Executable::READY);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(proxy->getState(), Executable::READY);
    EXPECT_EQ(proxy->getResult(), Executable::FAILURE);
}

TEST_F(SubmittedTaskProxyTest, AnswersForATaskThatIsGone) {
    auto task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);
    task.reset();

    EXPECT_EQ(proxy->getState(), Executable::DONE);
    EXPECT_EQ(proxy->getResult(), Executable::SUCCESS);
    proxy->updatePriority(HIGH);
    proxy->cancel();
    proxy->waitForCompletion();
}

TEST_F(SubmittedTaskProxyTest, OfNoTaskAnswersAsForOneThatIsGone) {
    auto const proxy = SubmittedTask::provideProxy({});

    EXPECT_EQ(proxy->getState(), Executable::DONE);
    EXPECT_EQ(proxy->getResult(), Executable::SUCCESS);
    proxy->updatePriority(HIGH);
    proxy->cancel();
    proxy->waitForCompletion();
}

TEST_F(SubmittedTaskProxyTest, UpdatesPriorityAndRank) {
    auto const task = submission(succeed(), HIGH);
    task->setRank(5000000);

    SubmittedTask::provideProxy(task)->updatePriority(NORMAL);

    EXPECT_EQ(task->getPriority(), NORMAL);
    EXPECT_EQ(task->getRank(), 1000u);
}

TEST_F(SubmittedTaskProxyTest, CancelsThroughTheVirtualOperation) {
    class Observed : public SubmittedTask {
    public:
        Observed() : SubmittedTask(succeed(), NORMAL, Callback(), "observed") {}
        void setState(Executable::State newState) override { states.push_back(newState); }
        std::vector<Executable::State> states;
    };
    auto const task = std::make_shared<Observed>();

    SubmittedTask::provideProxy(task)->cancel();

    EXPECT_THAT(task->states, ElementsAre(Executable::CANCELLED));
}

TEST_F(SubmittedTaskProxyTest, CancelsWhateverTheState) {
    for (auto const state : {Executable::UNSCHEDULED, Executable::READY, Executable::EXECUTING,
                             Executable::CANCELLED, Executable::DONE}) {
        auto const task = submission();
        task->setState(state);

        SubmittedTask::provideProxy(task)->cancel();

        EXPECT_EQ(task->getState(), Executable::CANCELLED) << taskStateToName(state);
        EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
    }
}

TEST_F(SubmittedTaskProxyTest, HoldsTheTaskWeaklyBetweenCalls) {
    auto task = submission();
    auto const proxy = SubmittedTask::provideProxy(task);
    EXPECT_EQ(task.use_count(), 1);

    proxy->getState();
    proxy->getResult();
    proxy->updatePriority(LOW);
    proxy->cancel();
    task->setPromiseValue();
    proxy->waitForCompletion();

    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(SubmittedTaskProxyTest, MembersDoNotNeedTheRecord) {
    auto const task = submission();
    SubmittedTaskProxy copy;
    {
        auto const proxy = SubmittedTask::provideProxy(task);
        EXPECT_EQ(proxy.use_count(), 1);
        copy = *proxy;
    }

    copy.cancel();

    EXPECT_EQ(copy.getState(), Executable::CANCELLED);
}

// --- the handle

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
    struct TellingError : std::runtime_error {
        explicit TellingError(std::shared_ptr<void> toHold)
            : std::runtime_error("telling"), held(std::move(toHold)) {}
        std::shared_ptr<void> held;
    };
    auto proxy = std::make_shared<SubmittedTaskProxy>();
    proxy->cancel = [end = test::atEnd([&order] { order.emplace_back("proxy"); })] {};
    auto handle = std::make_shared<TaskHandle>(proxy);
    proxy.reset();
    handle->setException(std::make_exception_ptr(
        TellingError(test::atEnd([&order] { order.emplace_back("exception"); }))));
    ASSERT_THAT(order, IsEmpty());

    handle.reset();

    EXPECT_THAT(order, ElementsAre("exception", "proxy"));
}

TEST_F(TaskHandleTest, OnlyItsDestructorIsVirtual) {
    EXPECT_EQ(test::virtualSlotCount("TaskHandle"), 2u);
}

// --- the handle of a task, by either road

struct Road {
    char const* name;
    std::shared_ptr<TaskHandle> (*makeHandle)(std::shared_ptr<SubmittedTask> const&);
};

// Made by a queue, which has released the task again.
std::shared_ptr<TaskHandle> unlinkedHandleOfAQueue(std::shared_ptr<SubmittedTask> const& task) {
    SubmittedTasksQueue queue(nullptr);
    auto handle = queue.addTask(task);
    EXPECT_EQ(queue.getNextTask(), task);
    task->setHandle(nullptr);
    return handle;
}

void PrintTo(Road const& road, std::ostream* out) {
    *out << road.name;
}

std::string nameOfRoad(::testing::TestParamInfo<Road> const& parameter) {
    return parameter.param.name;
}

class LinkedHandleTest : public test::BoundedTest, public ::testing::WithParamInterface<Road> {
protected:
    static std::shared_ptr<TaskHandle> link(std::shared_ptr<SubmittedTask> const& task) {
        auto handle = GetParam().makeHandle(task);
        task->setHandle(handle);
        return handle;
    }
};

INSTANTIATE_TEST_SUITE_P(TaskHandleTest, LinkedHandleTest,
                         ::testing::Values(Road{"ByProxy",
                                                [](auto const& task) {
                                                    return std::make_shared<TaskHandle>(
                                                        SubmittedTask::provideProxy(task));
                                                }},
                                           Road{"Directly", &unlinkedHandleOfAQueue}),
                         nameOfRoad);

TEST_P(LinkedHandleTest, StartsWithTheStateAndResultOfItsTask) {
    auto const task = submission();
    task->setState(Executable::EXECUTING);
    task->setResult(Executable::FAILURE);

    auto const handle = GetParam().makeHandle(task);

    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_EQ(handle->getException(), nullptr);
}

TEST_P(LinkedHandleTest, QueriesDoNotConsultTheTask) {
    auto const task = submission();
    auto const handle = GetParam().makeHandle(task);

    task->setState(Executable::DONE);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_FALSE(handle->isDone());
}

TEST_P(LinkedHandleTest, FollowsItsTaskThroughAnExecution) {
    std::vector<int> seen;
    std::shared_ptr<TaskHandle> handle;
    auto const task = submission([&] {
        seen = {handle->getState(), handle->getResult(), handle->isDone() ? 1 : 0};
        return Executable::SUCCESS;
    });
    handle = link(task);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_FALSE(handle->isDone());

    task->execute();

    EXPECT_THAT(seen, ElementsAre(Executable::EXECUTING, Executable::NO_RESULT, 0));
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_TRUE(handle->isDone());
}

TEST_P(LinkedHandleTest, CancellationShowsAtOnceWhileTheWorkStillRuns) {
    std::shared_ptr<TaskHandle> handle;
    bool doneInside = false;
    auto const task = submission([&] {
        handle->cancel();
        doneInside = handle->isDone();
        return Executable::SUCCESS;
    });
    handle = link(task);

    task->execute();

    EXPECT_TRUE(doneInside);
    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, CancellingAFinishedTaskKeepsItsResult) {
    auto const task = submission();
    auto const handle = link(task);
    task->execute();
    ASSERT_EQ(handle->getState(), Executable::DONE);

    handle->cancel();

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
    EXPECT_EQ(task->getResult(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, OutlivesItsTask) {
    auto task = submission(give(Executable::FAILURE));
    auto const handle = link(task);
    task->execute();
    task.reset();

    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE) << "not the proxy's answer";
    handle->cancel();
    handle->updatePriority(HIGH);
    handle->waitForCompletion();
    handle->waitForCompletion();
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_P(LinkedHandleTest, KeepsTheLastStateOfATaskThatNeverRan) {
    auto waiting = submission();
    auto cancelled = submission();
    auto const waitingHandle = link(waiting);
    auto const cancelledHandle = link(cancelled);
    cancelledHandle->cancel();

    waiting.reset();
    cancelled.reset();

    EXPECT_EQ(waitingHandle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(waitingHandle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(cancelledHandle->getState(), Executable::CANCELLED);
    EXPECT_EQ(cancelledHandle->getResult(), Executable::NO_RESULT);
}

TEST_P(LinkedHandleTest, DoesNotKeepItsTaskAlive) {
    auto const task = submission();
    auto const handle = link(task);

    EXPECT_EQ(task.use_count(), 1);
    EXPECT_EQ(handle.use_count(), 1);
}

TEST_P(LinkedHandleTest, DestructionDoesNotTouchTheTask) {
    auto const task = submission();
    link(task).reset();

    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task->execute(), Executable::SUCCESS);
}

TEST_P(LinkedHandleTest, WaitReturnsForEveryOutcome) {
    for (int const result : {1, 2, 3, 4, 0}) {
        auto const task = submission(give(result));
        auto const handle = link(task);
        std::thread worker([&task] { task->execute(); });

        handle->waitForCompletion();

        EXPECT_EQ(handle->getState(), Executable::DONE);
        EXPECT_EQ(std::int32_t{handle->getResult()}, result);
        worker.join();
    }
}

TEST_P(LinkedHandleTest, SecondWaitOnALiveTaskThrows) {
    auto const task = submission();
    auto const handle = link(task);
    task->setPromiseValue();
    handle->waitForCompletion();

    test::LogRecorder recorder(log::ERROR);
    // With no lock held: a sink may ask for what it likes.
    recorder.onLine([&](test::LogLine const&) { task->getState(); });
    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
    EXPECT_THAT(recorder.texts(), ElementsAre(WAITED_TWICE));
}

TEST_F(TaskHandleTest, WaitAndFutureExcludeEachOther) {
    auto const waited = submission();
    auto const waitedHandle = linkHandle(waited);
    waited->setPromiseValue();
    waitedHandle->waitForCompletion();
    test::LogRecorder const recorder(log::ERROR);
    EXPECT_EQ(errorOf([&] { waited->getFuture(); }), std::future_errc::future_already_retrieved);

    auto const taken = submission();
    auto const takenHandle = linkHandle(taken);
    auto const future = taken->getFuture();
    EXPECT_EQ(errorOf([&] { takenHandle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
    EXPECT_THAT(recorder.texts(), ElementsAre(WAITED_TWICE, WAITED_TWICE));
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

TEST_P(LinkedHandleTest, OfTwoThreadsThatWaitOneThrows) {
    auto const task = submission();
    auto const handle = link(task);
    std::atomic<int> refused{0};
    auto const waitOrRelease = [&] {
        try {
            handle->waitForCompletion();
        } catch (std::future_error const& e) {
            EXPECT_EQ(e.code(), std::future_errc::future_already_retrieved);
            ++refused;
            task->setPromiseValue();  // Releases the other one.
        }
    };

    std::thread first(waitOrRelease);
    std::thread second(waitOrRelease);
    first.join();
    second.join();

    EXPECT_EQ(refused, 1);
}

TEST_P(LinkedHandleTest, ExceptionCanBeReadAfterTheWait) {
    auto const thrown = std::make_exception_ptr(std::runtime_error("x"));
    auto const task =
        submission([&thrown]() -> Executable::Result { std::rethrow_exception(thrown); });
    auto const handle = link(task);
    std::thread worker([&task] { task->execute(); });

    handle->waitForCompletion();

    EXPECT_EQ(handle->getException(), thrown);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    worker.join();
}

TEST_P(LinkedHandleTest, LogsNothing) {
    test::LogRecorder recorder;
    auto task = submission();
    auto const handle = link(task);

    handle->updatePriority(HIGH);
    handle->cancel();
    task->setPromiseValue();
    handle->waitForCompletion();
    task.reset();
    handle->cancel();
    handle->waitForCompletion();

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_P(LinkedHandleTest, WaitTakesTheFuture) {
    auto const task = submission();
    auto const handle = link(task);
    task->setPromiseValue();
    handle->waitForCompletion();

    EXPECT_EQ(errorOf([&] { task->getFuture(); }), std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, WaitForATaskWhoseFutureIsTakenThrows) {
    auto const task = submission();
    auto const handle = link(task);
    auto future = task->getFuture();

    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);

    task->setPromiseValue();
    EXPECT_TRUE(future.get());
    EXPECT_EQ(errorOf([&] { handle->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, OfTwoHandlesOfATaskOneCanWait) {
    auto const task = submission();
    auto const first = link(task);
    auto const second = link(task);
    task->execute();
    first->waitForCompletion();

    EXPECT_EQ(errorOf([&] { second->waitForCompletion(); }),
              std::future_errc::future_already_retrieved);
}

TEST_P(LinkedHandleTest, WaitKeepsTheTaskAlive) {
    auto task = submission();
    std::weak_ptr<SubmittedTask> const watched = task;
    auto const handle = link(task);
    std::thread waiter([&handle] { handle->waitForCompletion(); });
    test::yieldUntil([&] { return watched.use_count() == 2; });

    task.reset();
    EXPECT_EQ(watched.use_count(), 1);
    watched.lock()->setPromiseValue();
    waiter.join();

    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace ovra::concurrent
