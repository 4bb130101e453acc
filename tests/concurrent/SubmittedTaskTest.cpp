#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <ostream>
#include <set>
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

static_assert(std::has_virtual_destructor_v<SubmittedTask>);
static_assert(!std::is_copy_constructible_v<SubmittedTask>);
static_assert(!std::is_move_constructible_v<SubmittedTask>);
static_assert(!std::is_copy_assignable_v<SubmittedTask>);

constexpr unsigned int CAP = SubmittedTask::HIGHEST_CURRENT_RANK_VALUE;

class SubmittedTaskTest : public test::BoundedTest {};

Executable::State stateOf(int value) {
    return static_cast<Executable::State>(value);
}

Executable::Result resultOf(int value) {
    return static_cast<Executable::Result>(value);
}

TaskPriority priorityOf(int value) {
    return static_cast<TaskPriority>(value);
}

std::string movingLine(char const* name, char const* state) {
    return std::string("[SubmittedTask::execute():INFO] Moving current task '") + name + "' into " +
           state + " state.";
}

std::string caughtLine(char const* name, char const* what) {
    return std::string("[SubmittedTask::execute():WARNING] Caught exception during running of '") +
           name + "'. (" + what + ")";
}

// What happened to a task, in order, as a subclass sees it.
class ObservedTask : public SubmittedTask {
public:
    explicit ObservedTask(Work const& work) : SubmittedTask(work, NORMAL, Callback(), "observed") {}

    void setState(Executable::State newState) override {
        events.push_back(std::string("state ") + taskStateToName(newState));
        if (beforeState) {
            beforeState(newState);
        }
        SubmittedTask::setState(newState);
    }
    void setResult(Executable::Result newResult) override {
        events.push_back("result " + std::to_string(newResult));
        if (beforeResult) {
            beforeResult(newResult);
        }
        SubmittedTask::setResult(newResult);
    }

    std::vector<std::string> events;
    std::function<void(Executable::State)> beforeState;
    std::function<void(Executable::Result)> beforeResult;
};

// --- construction

TEST_F(SubmittedTaskTest, OfATaskStartsUnscheduledWithoutResult) {
    auto const work = std::make_shared<NamedTask>(succeed(), "own name");
    SubmittedTask const task(work, HIGH, Callback());

    EXPECT_EQ(task.getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task.getResult(), Executable::NO_RESULT);
    EXPECT_EQ(task.getPriority(), HIGH);
    EXPECT_EQ(task.getRank(), 1000000u);
    EXPECT_TRUE(task.getHandle().expired());
    EXPECT_FALSE(task.isCancelled());
    EXPECT_STREQ(task.taskName(), "own name");
}

TEST_F(SubmittedTaskTest, OfAFunctionStartsUnscheduledWithoutResult) {
    SubmittedTask const task(succeed(), NORMAL, Callback(), "function");

    EXPECT_EQ(task.getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task.getResult(), Executable::NO_RESULT);
    EXPECT_EQ(task.getPriority(), NORMAL);
    EXPECT_EQ(task.getRank(), 1000u);
    EXPECT_TRUE(task.getHandle().expired());
    EXPECT_FALSE(task.isCancelled());
    EXPECT_STREQ(task.taskName(), "function");
}

TEST_F(SubmittedTaskTest, EveryPriorityIsKeptAndGivesTheInitialRank) {
    for (int const priority : {-1, 0, 1, 2, 3, 4, 5, INT32_MAX, INT32_MIN}) {
        SubmittedTask const ofFunction(succeed(), priorityOf(priority), Callback(), "work");
        SubmittedTask const ofTask(std::make_shared<NamedTask>(), priorityOf(priority), Callback());

        unsigned int const rank = submittedTaskPriorityToInitialRank(priorityOf(priority));
        EXPECT_EQ(std::int32_t{ofFunction.getPriority()}, priority);
        EXPECT_EQ(ofFunction.getRank(), rank) << priority;
        EXPECT_EQ(std::int32_t{ofTask.getPriority()}, priority);
        EXPECT_EQ(ofTask.getRank(), rank) << priority;
    }
}

// Counts how often a function object is copied.
class CopyCounter {
public:
    explicit CopyCounter(int& copyCount) : copies(&copyCount) {}
    CopyCounter(CopyCounter const& other) : copies(other.copies) { ++*copies; }
    CopyCounter(CopyCounter&&) = default;
    CopyCounter& operator=(CopyCounter const&) = delete;
    CopyCounter& operator=(CopyCounter&&) = delete;
    ~CopyCounter() = default;
    Executable::Result operator()() const { return Executable::SUCCESS; }
    void operator()(std::shared_ptr<Task> const&) const {}

private:
    int* copies;
};

TEST_F(SubmittedTaskTest, MovesTheTaskAndTheCallbackIn) {
    int copies = 0;
    Callback callback{CopyCounter(copies)};
    copies = 0;
    auto work = std::make_shared<NamedTask>();
    auto const& observer = *work;
    std::weak_ptr<Task> const watched = work;

    SubmittedTask const ofTask(std::move(work), NORMAL, std::move(callback));
    EXPECT_EQ(watched.use_count(), 1);
    EXPECT_EQ(copies, 0);
    EXPECT_EQ(ofTask.taskName(), observer.name());

    Callback other{CopyCounter(copies)};
    copies = 0;
    SubmittedTask const ofFunction(succeed(), NORMAL, std::move(other), "work");
    EXPECT_EQ(copies, 0);
}

TEST_F(SubmittedTaskTest, CopiesTheFunctionOnce) {
    int copies = 0;
    Work const work{CopyCounter(copies)};
    copies = 0;

    SubmittedTask const task(work, NORMAL, Callback(), "work");

    EXPECT_EQ(copies, 1);
}

TEST_F(SubmittedTaskTest, KeepsThePointerOfAFunctionsName) {
    char const name[] = "text";

    EXPECT_EQ(SubmittedTask(succeed(), NORMAL, Callback(), name).taskName(), name);
    EXPECT_EQ(SubmittedTask(succeed(), NORMAL, Callback(), nullptr).taskName(), nullptr);
}

TEST_F(SubmittedTaskTest, NullTaskIsLoggedAndNamed) {
    test::LogRecorder recorder;

    SubmittedTask const task(std::shared_ptr<Task>(), HIGH, Callback());

    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{
                    "[SubmittedTask::SubmittedTask:WARNING] Given a null pointer for a task.",
                    log::WARNING}));
    EXPECT_STREQ(task.taskName(), "Null Task");
    EXPECT_EQ(task.getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(task.getResult(), Executable::NO_RESULT);
    EXPECT_EQ(task.getRank(), 1000000u);
}

TEST_F(SubmittedTaskTest, ConstructionIsOtherwiseSilent) {
    test::LogRecorder recorder;

    SubmittedTask const ofTask(std::make_shared<NamedTask>(), NORMAL, Callback());
    SubmittedTask const ofFunction(succeed(), NORMAL, Callback(), nullptr);
    SubmittedTask const ofEmptyFunction(Work(), NORMAL, Callback(), nullptr);

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(SubmittedTaskTest, FirstTasksOfAProcessGetTheLargestIndices) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            SubmittedTask const first(succeed(), LOW, Callback(), "first");
            SubmittedTask const second(std::make_shared<NamedTask>(), HIGHEST, Callback());
            std::fprintf(stderr, "indices %d %d\n", first.getUniqueIndex(),
                         second.getUniqueIndex());
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "indices 2147483646 2147483645");
}

TEST_F(SubmittedTaskTest, IndicesCountDownByOne) {
    SubmittedTask const first(succeed(), LOW, Callback(), "first");
    SubmittedTask const second(std::make_shared<NamedTask>(), HIGHEST, Callback());
    SubmittedTask const third(std::shared_ptr<Task>(), NORMAL, Callback());

    EXPECT_EQ(second.getUniqueIndex(), first.getUniqueIndex() - 1);
    EXPECT_EQ(third.getUniqueIndex(), first.getUniqueIndex() - 2);
}

TEST_F(SubmittedTaskTest, IndicesAreNeverGivenOutAgain) {
    std::int32_t const before = submission()->getUniqueIndex();
    for (int i = 0; i < 10; ++i) {
        submission();
    }

    EXPECT_EQ(submission()->getUniqueIndex(), before - 11);
}

TEST_F(SubmittedTaskTest, IndicesAreDistinctAcrossThreads) {
    constexpr int THREADS = 4;
    constexpr int EACH = 2000;
    std::int32_t const before = submission()->getUniqueIndex();
    std::vector<std::vector<std::int32_t>> found(THREADS);
    std::vector<std::thread> threads;
    test::Gate start(THREADS);
    for (auto& mine : found) {
        threads.emplace_back([&start, &mine] {
            start.open();
            start.wait();
            for (int i = 0; i < EACH; ++i) {
                mine.push_back(submission()->getUniqueIndex());
            }
        });
    }
    std::set<std::int32_t> all;
    for (std::size_t i = 0; i < THREADS; ++i) {
        threads[i].join();
        EXPECT_TRUE(std::is_sorted(found[i].rbegin(), found[i].rend()));
        all.insert(found[i].begin(), found[i].end());
    }

    EXPECT_EQ(all.size(), std::size_t{THREADS * EACH});
    EXPECT_EQ(*all.rbegin(), before - 1);
    EXPECT_EQ(*all.begin(), before - THREADS * EACH);
}

TEST_F(SubmittedTaskTest, TakesItsIndexBeforeItCopiesTheFunction) {
    // Makes a submission of its own whenever it is copied.
    struct Submitting {
        explicit Submitting(std::int32_t& index) : made(&index) {}
        Submitting(Submitting const& other) : made(other.made) {
            *made = submission()->getUniqueIndex();
        }
        Executable::Result operator()() const { return Executable::SUCCESS; }
        std::int32_t* made;
    };
    std::int32_t made = 0;
    Work const work{Submitting(made)};

    SubmittedTask const task(work, NORMAL, Callback(), "work");

    EXPECT_EQ(made, task.getUniqueIndex() - 1);
}

// --- rank and priority

struct RankCase {
    TaskPriority priority;
    unsigned int asked;
    unsigned int stored;
};

void PrintTo(RankCase const& row, std::ostream* out) {
    *out << "priority " << row.priority << ", rank " << row.asked;
}

class SubmittedTaskRankTest : public ::testing::TestWithParam<RankCase> {};

TEST_P(SubmittedTaskRankTest, IsClamped) {
    SubmittedTask task(succeed(), GetParam().priority, Callback(), "work");

    task.setRank(GetParam().asked);

    EXPECT_EQ(task.getRank(), GetParam().stored);
    EXPECT_EQ(task.getPriority(), GetParam().priority);
}

INSTANTIATE_TEST_SUITE_P(
    SubmittedTaskTest, SubmittedTaskRankTest,
    ::testing::Values(RankCase{NORMAL, 0, 1000}, RankCase{NORMAL, 999, 1000},
                      RankCase{NORMAL, 1000, 1000}, RankCase{NORMAL, 1001, 1001},
                      RankCase{NORMAL, 3000000000u, CAP}, RankCase{LOW, 0, 1}, RankCase{LOW, 1, 1},
                      RankCase{LOW, 2, 2}, RankCase{LOW, 3000000000u, CAP},
                      RankCase{HIGH, 999999, 1000000}, RankCase{HIGH, 1000001, 1000001},
                      RankCase{HIGHEST, 0, CAP}, RankCase{HIGHEST, CAP - 1, CAP},
                      RankCase{HIGHEST, 0xffffffffu, CAP}, RankCase{LOW, CAP - 1, CAP - 1},
                      RankCase{LOW, CAP, CAP}, RankCase{LOW, 0x80000000u, CAP},
                      RankCase{LOW, 0xffffffffu, CAP}, RankCase{priorityOf(0), 0, 1},
                      RankCase{priorityOf(7), 0, 1}, RankCase{priorityOf(7), 5, 5}));

TEST_F(SubmittedTaskTest, RankCanFallAgainToItsFloor) {
    SubmittedTask task(succeed(), NORMAL, Callback(), "work");
    task.setRank(50000);

    task.setRank(2000);
    EXPECT_EQ(task.getRank(), 2000u);
    task.setRank(1);
    EXPECT_EQ(task.getRank(), 1000u);
}

struct PriorityCase {
    TaskPriority before;
    unsigned int agedTo;
    int after;
    unsigned int rank;
};

void PrintTo(PriorityCase const& row, std::ostream* out) {
    *out << "from " << row.before << ", aged to " << row.agedTo << ", to " << row.after;
}

class SubmittedTaskPriorityTest : public ::testing::TestWithParam<PriorityCase> {};

TEST_P(SubmittedTaskPriorityTest, ResetsTheRank) {
    SubmittedTask task(succeed(), GetParam().before, Callback(), "work");
    task.setRank(GetParam().agedTo);

    task.setPriority(priorityOf(GetParam().after));

    EXPECT_EQ(std::int32_t{task.getPriority()}, GetParam().after);
    EXPECT_EQ(task.getRank(), GetParam().rank);
}

INSTANTIATE_TEST_SUITE_P(
    SubmittedTaskTest, SubmittedTaskPriorityTest,
    ::testing::Values(PriorityCase{HIGH, 5000000, 1, 1}, PriorityCase{LOW, 2000000, 3, 1000000},
                      PriorityCase{NORMAL, 64000, 2, 1000}, PriorityCase{LOW, 1, 4, CAP},
                      PriorityCase{HIGHEST, CAP, 2, 1000}, PriorityCase{HIGHEST, CAP, 4, CAP},
                      PriorityCase{HIGH, CAP, 0, 1}, PriorityCase{HIGH, CAP, 5, 1},
                      PriorityCase{HIGH, CAP, -1, 1}));

// Answers with a priority of its own.
class PriorityLiar : public SubmittedTask {
public:
    explicit PriorityLiar(TaskPriority toAnswer)
        : SubmittedTask(succeed(), LOW, Callback(), "liar"), answer(toAnswer) {}
    TaskPriority getPriority() const override { return answer; }
    TaskPriority answer;
};

TEST_F(SubmittedTaskTest, RankIsClampedToThePriorityThatASubclassAnswers) {
    PriorityLiar task(HIGH);
    EXPECT_EQ(task.getRank(), 1u);

    task.setRank(5);
    EXPECT_EQ(task.getRank(), 1000000u);
    task.setPriority(NORMAL);
    EXPECT_EQ(task.getRank(), 1000000u);
    EXPECT_EQ(task.SubmittedTask::getPriority(), NORMAL);
    task.answer = LOW;
    task.setRank(5);
    EXPECT_EQ(task.getRank(), 5u);
}

// --- state, result and handle

TEST_F(SubmittedTaskTest, EveryStateMayFollowEveryOther) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    for (int before = 0; before <= 6; ++before) {
        for (int after = 0; after <= 6; ++after) {
            task->setState(stateOf(before));
            ASSERT_EQ(task->getState(), stateOf(before));
            handle->setState(stateOf(-1));

            task->setState(stateOf(after));
            ASSERT_EQ(task->getState(), stateOf(after)) << "after " << before;
            ASSERT_EQ(handle->getState(), stateOf(after)) << "after " << before;
            ASSERT_EQ(task->isCancelled(), after == 4);
        }
    }
    EXPECT_EQ(task->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
}

TEST_F(SubmittedTaskTest, EveryResultMayFollowEveryOther) {
    auto const task = submission();
    auto const handle = linkHandle(task);
    for (int before = 0; before <= 6; ++before) {
        for (int after = 0; after <= 6; ++after) {
            task->setResult(resultOf(before));
            ASSERT_EQ(task->getResult(), resultOf(before));
            handle->setResult(resultOf(-1));

            task->setResult(resultOf(after));
            ASSERT_EQ(task->getResult(), resultOf(after)) << "after " << before;
            ASSERT_EQ(handle->getResult(), resultOf(after)) << "after " << before;
        }
    }
    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTaskTest, OnlySuccessAndFailureAreFinishedResults) {
    auto const task = submission();
    for (int const value : {INT32_MIN, -1, 0, 1, 4, 5, 6, INT32_MAX}) {
        EXPECT_FALSE(task->isFinishedResult(resultOf(value))) << value;
    }
    EXPECT_TRUE(task->isFinishedResult(Executable::SUCCESS));
    EXPECT_TRUE(task->isFinishedResult(Executable::FAILURE));
}

TEST_F(SubmittedTaskTest, LinkingAHandlePushesTheCurrentStateAndResult) {
    auto const task = submission();
    auto const handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
    task->setState(Executable::READY);
    task->setResult(Executable::ABORTED);
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);

    task->setHandle(handle);

    EXPECT_EQ(handle->getState(), Executable::READY);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    EXPECT_EQ(task->getHandle().lock(), handle);
}

TEST_F(SubmittedTaskTest, LinkingAHandleChangesNothingInTheTask) {
    auto const task = std::make_shared<ObservedTask>(succeed());

    auto const handle = linkHandle(task);

    EXPECT_THAT(task->events, IsEmpty());
}

TEST_F(SubmittedTaskTest, TheHandleLinkedLastFollowsAlone) {
    auto const task = submission();
    auto const first = linkHandle(task);
    auto const second = linkHandle(task);

    task->setState(Executable::CANCELLED);
    task->setResult(Executable::FAILURE);

    EXPECT_EQ(first->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(first->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(second->getState(), Executable::CANCELLED);
    EXPECT_EQ(second->getResult(), Executable::FAILURE);
    EXPECT_EQ(task->getHandle().lock(), second);
}

TEST_F(SubmittedTaskTest, LinkingNoHandleEndsTheLink) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setHandle(nullptr);
    task->setState(Executable::DONE);

    EXPECT_TRUE(task->getHandle().expired());
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
}

TEST_F(SubmittedTaskTest, DoesNotKeepItsHandleAlive) {
    auto const task = submission();
    auto handle = linkHandle(task);
    EXPECT_EQ(handle.use_count(), 1);

    handle.reset();

    EXPECT_TRUE(task->getHandle().expired());
    task->setState(Executable::CANCELLED);
    task->setResult(Executable::ABORTED);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
    EXPECT_EQ(task->getResult(), Executable::ABORTED);
}

TEST_F(SubmittedTaskTest, PushingLeavesNoReferenceToTheHandle) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setState(Executable::EXECUTING);
    task->setResult(Executable::SUCCESS);
    task->handleAndLogUnknownException(nullptr, true);

    EXPECT_EQ(handle.use_count(), 1);
}

TEST_F(SubmittedTaskTest, StateChangesFromOutsideAreNotLogged) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->setState(Executable::EXECUTING);
    task->setResult(Executable::FAILURE);
    handle->cancel();
    handle->updatePriority(HIGH);
    task->setPromiseValue();

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(SubmittedTaskTest, UpdatingTheStateIsLogged) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, "sync");

    task->updateTaskState(Executable::READY);

    EXPECT_EQ(task->getState(), Executable::READY);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "READY"), log::INFO}));
}

TEST_F(SubmittedTaskTest, UpdatingToAnUnknownStateIsLoggedAsSuch) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, "sync");

    task->updateTaskState(stateOf(6));

    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("sync", "UNKNOWN")));
}

TEST_F(SubmittedTaskTest, NullNameIsLoggedAsText) {
    test::LogRecorder recorder;
    auto const task = submission(succeed(), NORMAL, nullptr);

    task->updateTaskState(Executable::DONE);

    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("(null)", "DONE")));
}

TEST_F(SubmittedTaskTest, LogsTheStateThatWasAskedForWhateverASubclassMakesOfIt) {
    class Stubborn : public SubmittedTask {
    public:
        Stubborn() : SubmittedTask(succeed(), NORMAL, Callback(), "stubborn") {}
        void setState(Executable::State) override {}
    };
    test::LogRecorder recorder;
    Stubborn task;

    task.updateTaskState(Executable::EXECUTING);

    EXPECT_EQ(task.getState(), Executable::UNSCHEDULED);
    EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("stubborn", "EXECUTING")));
}

TEST_F(SubmittedTaskTest, LogsAStateAfterItIsSetAndWithoutItsLock) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);
    std::vector<Executable::State> seen;
    recorder.onLine([&](test::LogLine const&) {
        seen.push_back(task->getState());
        seen.push_back(handle->getState());
    });

    task->updateTaskState(Executable::EXECUTING);

    EXPECT_THAT(seen, ElementsAre(Executable::EXECUTING, Executable::EXECUTING));
}

// --- execution

struct Outcome {
    int returned;
    bool cancelled;
    Executable::State state;
    int result;
};

void PrintTo(Outcome const& outcome, std::ostream* out) {
    *out << outcome.returned << (outcome.cancelled ? ", cancelled" : "");
}

class SubmittedTaskOutcomeTest : public ::testing::TestWithParam<Outcome> {};

TEST_P(SubmittedTaskOutcomeTest, FollowsFromWhatTheWorkReturnsAndFromCancellation) {
    test::LogRecorder recorder;
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&running] {
        if (GetParam().cancelled) {
            running.lock()->setState(Executable::CANCELLED);
        }
        return resultOf(GetParam().returned);
    });
    running = task;
    auto const handle = linkHandle(task);
    auto future = task->getFuture();

    EXPECT_EQ(task->execute(), resultOf(GetParam().result));

    EXPECT_EQ(task->getState(), GetParam().state);
    EXPECT_EQ(task->getResult(), resultOf(GetParam().result));
    EXPECT_EQ(handle->getState(), GetParam().state);
    EXPECT_EQ(handle->getResult(), resultOf(GetParam().result));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_TRUE(future.get());
    if (GetParam().cancelled) {
        EXPECT_THAT(recorder.texts(), ElementsAre(movingLine("work", "EXECUTING")));
    } else {
        EXPECT_THAT(recorder.texts(),
                    ElementsAre(movingLine("work", "EXECUTING"), movingLine("work", "DONE")));
    }
}

INSTANTIATE_TEST_SUITE_P(
    SubmittedTaskTest, SubmittedTaskOutcomeTest,
    ::testing::Values(
        Outcome{2, false, Executable::DONE, 2}, Outcome{3, false, Executable::DONE, 3},
        Outcome{1, false, Executable::DONE, 1}, Outcome{4, false, Executable::DONE, 4},
        Outcome{0, false, Executable::DONE, 0}, Outcome{6, false, Executable::DONE, 6},
        Outcome{-7, false, Executable::DONE, -7}, Outcome{2, true, Executable::CANCELLED, 2},
        Outcome{3, true, Executable::CANCELLED, 3}, Outcome{1, true, Executable::CANCELLED, 4},
        Outcome{4, true, Executable::CANCELLED, 4}, Outcome{5, true, Executable::CANCELLED, 4},
        Outcome{0, true, Executable::CANCELLED, 4}, Outcome{6, true, Executable::CANCELLED, 4}));

TEST_F(SubmittedTaskTest, SetsTheResultBeforeTheFinalState) {
    auto const task = std::make_shared<ObservedTask>(succeed());
    auto const handle = linkHandle(task);
    auto const future = std::make_shared<std::future<bool>>(task->getFuture());
    auto const isReady = [&] {
        return future->wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    task->beforeResult = [&](Executable::Result) {
        EXPECT_EQ(handle->getState(), Executable::EXECUTING);
        EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
        EXPECT_FALSE(isReady());
    };
    task->beforeState = [&](Executable::State state) {
        if (state == Executable::DONE) {
            EXPECT_EQ(handle->getState(), Executable::EXECUTING);
            EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
        }
        EXPECT_FALSE(isReady());
    };

    task->execute();

    EXPECT_THAT(task->events, ElementsAre("state EXECUTING", "result 2", "state DONE"));
    EXPECT_TRUE(isReady());
}

TEST_F(SubmittedTaskTest, FulfilsThePromiseAfterTheFinalStateIsLogged) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const future = task->getFuture();
    int looks = 0;
    recorder.onLine([&](test::LogLine const&) {
        ++looks;
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    });

    task->execute();

    EXPECT_EQ(looks, 2);
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

TEST_F(SubmittedTaskTest, FulfilsThePromiseAfterTheResultOfACancelledTask) {
    std::weak_ptr<SubmittedTask> running;
    auto const task = std::make_shared<ObservedTask>([&running] {
        running.lock()->setState(Executable::CANCELLED);
        return Executable::SUCCESS;
    });
    running = task;
    auto const future = task->getFuture();
    task->beforeResult = [&](Executable::Result) {
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    };

    task->execute();

    EXPECT_THAT(task->events, ElementsAre("state EXECUTING", "state CANCELLED", "result 2"));
    EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

TEST_F(SubmittedTaskTest, CancellationThatComesWithTheEndIsOverwritten) {
    auto const task = std::make_shared<ObservedTask>(succeed());
    auto const handle = linkHandle(task);
    task->beforeResult = [&handle](Executable::Result) { handle->cancel(); };

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_THAT(task->events,
                ElementsAre("state EXECUTING", "result 2", "state CANCELLED", "state DONE"));
    EXPECT_EQ(handle->getState(), Executable::DONE);
}

TEST_F(SubmittedTaskTest, IsExecutingWhileTheWorkRuns) {
    std::weak_ptr<SubmittedTask> running;
    std::vector<int> seen;
    auto const task = submission([&] {
        auto const self = running.lock();
        seen = {self->getState(), self->getResult(), self->getHandle().lock()->getState()};
        return Executable::SUCCESS;
    });
    running = task;
    auto const handle = linkHandle(task);

    task->execute();

    EXPECT_THAT(seen,
                ElementsAre(Executable::EXECUTING, Executable::NO_RESULT, Executable::EXECUTING));
}

TEST_F(SubmittedTaskTest, ReturnsTheResultThatASubclassHasLeft) {
    class Changing : public SubmittedTask {
    public:
        Changing() : SubmittedTask(succeed(), NORMAL, Callback(), "changing") {}
        void setResult(Executable::Result) override {
            SubmittedTask::setResult(Executable::FAILURE);
        }
    };
    Changing task;

    EXPECT_EQ(task.execute(), Executable::FAILURE);
}

TEST_F(SubmittedTaskTest, RepeatsTheWorkUntilItReturnsSomethingElse) {
    test::LogRecorder recorder;
    int runs = 0;
    std::vector<std::thread::id> threads;
    auto const task = submission([&] {
        threads.push_back(std::this_thread::get_id());
        return ++runs < 4 ? Executable::REPEAT : Executable::SUCCESS;
    });

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_EQ(runs, 4);
    EXPECT_THAT(threads, ::testing::Each(std::this_thread::get_id()));
    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_THAT(recorder.texts(),
                ElementsAre(movingLine("work", "EXECUTING"), movingLine("work", "DONE")));
}

TEST_F(SubmittedTaskTest, RepeatedWorkShowsNoResultInBetween) {
    auto const task = std::make_shared<ObservedTask>(Work());
    int runs = 0;
    auto const repeating = std::make_shared<ObservedTask>(
        [&runs] { return ++runs < 3 ? Executable::REPEAT : Executable::FAILURE; });

    repeating->execute();

    EXPECT_THAT(repeating->events, ElementsAre("state EXECUTING", "result 3", "state DONE"));
}

TEST_F(SubmittedTaskTest, CancellationEndsRepetition) {
    int runs = 0;
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&] {
        if (++runs == 3) {
            running.lock()->setState(Executable::CANCELLED);
        }
        return Executable::REPEAT;
    });
    running = task;

    EXPECT_EQ(task->execute(), Executable::ABORTED);

    EXPECT_EQ(runs, 3);
    EXPECT_EQ(task->getState(), Executable::CANCELLED);
}

TEST_F(SubmittedTaskTest, CancellationIsNoticedBeforeTheFirstRun) {
    // A cancellation that follows `EXECUTING` at once.
    class CancelledAtOnce : public SubmittedTask {
    public:
        explicit CancelledAtOnce(Work const& work)
            : SubmittedTask(work, NORMAL, Callback(), "cancelled") {}
        void setState(Executable::State newState) override {
            SubmittedTask::setState(newState);
            SubmittedTask::setState(Executable::CANCELLED);
        }
    };
    int runs = 0;
    CancelledAtOnce task([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    auto future = task.getFuture();

    EXPECT_EQ(task.execute(), Executable::ABORTED);

    EXPECT_EQ(runs, 0);
    EXPECT_EQ(task.getState(), Executable::CANCELLED);
    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskTest, ExecutionOverwritesAnEarlierCancellation) {
    int runs = 0;
    auto const task = submission([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    task->setState(Executable::CANCELLED);

    EXPECT_EQ(task->execute(), Executable::SUCCESS);

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(task->getState(), Executable::DONE);
}

TEST_F(SubmittedTaskTest, ExecutingASecondTimeRunsTheWorkAndCannotFulfilThePromiseAgain) {
    int runs = 0;
    auto const task = submission([&runs] {
        ++runs;
        return Executable::SUCCESS;
    });
    task->execute();

    EXPECT_THROW(task->execute(), std::future_error);
    EXPECT_EQ(runs, 2);
}

TEST_F(SubmittedTaskTest, NullTaskWaitsForItsCancellation) {
    test::LogRecorder recorder;
    test::Gate executing;
    recorder.onLine([&executing](test::LogLine const& line) {
        if (line.text == movingLine("Null Task", "EXECUTING")) {
            executing.open();
        }
    });
    auto const task = std::make_shared<SubmittedTask>(std::shared_ptr<Task>(), NORMAL, Callback());
    auto const handle = linkHandle(task);
    auto const execution = std::async(std::launch::async, [&task] { return task->execute(); });
    executing.wait();
    EXPECT_EQ(handle->getState(), Executable::EXECUTING);
    EXPECT_EQ(execution.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

    handle->cancel();
    handle->waitForCompletion();

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::ABORTED);
    execution.wait();
    EXPECT_EQ(recorder.count(movingLine("Null Task", "DONE")), 0);
}

// --- exceptions

// More than its base class could carry through a copy of that base.
class NumberedError : public std::runtime_error {
public:
    explicit NumberedError(int ownNumber) : std::runtime_error("numbered"), number(ownNumber) {}
    int number;
};

TEST_F(SubmittedTaskTest, ExceptionOfTheWorkIsAFailure) {
    test::LogRecorder recorder;
    auto const thrown = std::make_exception_ptr(NumberedError(7));
    auto const task = submission(
        [&thrown]() -> Executable::Result { std::rethrow_exception(thrown); }, NORMAL, "sync");
    auto const handle = linkHandle(task);
    auto future = task->getFuture();

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_EQ(handle->getException(), thrown) << "not the very exception";
    EXPECT_TRUE(future.get());
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "EXECUTING"), log::INFO},
                            test::LogLine{caughtLine("sync", "numbered"), log::WARNING},
                            test::LogLine{movingLine("sync", "DONE"), log::INFO}));
}

TEST_F(SubmittedTaskTest, AnythingElseThrownIsAnUnknownException) {
    test::LogRecorder recorder;
    auto const task = submission([]() -> Executable::Result { throw 42; }, NORMAL, "sync");
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{movingLine("sync", "EXECUTING"), log::INFO},
                            test::LogLine{caughtLine("sync", "Unknown exception"), log::WARNING},
                            test::LogLine{movingLine("sync", "DONE"), log::INFO}));
    ASSERT_NE(handle->getException(), nullptr);
    try {
        std::rethrow_exception(handle->getException());
    } catch (std::exception const& e) {
        EXPECT_EQ(typeid(e), typeid(std::runtime_error));
        EXPECT_STREQ(e.what(), "Unknown exception");
    }
}

TEST_F(SubmittedTaskTest, EmptyFunctionIsAFailure) {
    test::LogRecorder recorder;
    auto const task = submission(Work(), NORMAL, "empty");
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(recorder.count(caughtLine("empty", std::bad_function_call().what())), 1);
    ASSERT_NE(handle->getException(), nullptr);
    EXPECT_THROW(std::rethrow_exception(handle->getException()), std::bad_function_call);
}

TEST_F(SubmittedTaskTest, ExceptionOfNamelessWorkIsLoggedWithoutItsName) {
    test::LogRecorder recorder;
    auto const task = submission([]() -> Executable::Result { throw std::runtime_error("lost"); },
                                 NORMAL, nullptr);

    task->execute();

    EXPECT_EQ(recorder.count(caughtLine("(null)", "lost")), 1);
}

TEST_F(SubmittedTaskTest, ExceptionEndsRepetition) {
    int runs = 0;
    auto const task = submission([&runs]() -> Executable::Result {
        if (++runs == 2) {
            throw std::runtime_error("second run");
        }
        return Executable::REPEAT;
    });

    EXPECT_EQ(task->execute(), Executable::FAILURE);
    EXPECT_EQ(runs, 2);
}

TEST_F(SubmittedTaskTest, ExceptionAfterACancellationIsAFailureOfACancelledTask) {
    std::weak_ptr<SubmittedTask> running;
    auto const task = submission([&running]() -> Executable::Result {
        running.lock()->setState(Executable::CANCELLED);
        throw std::runtime_error("too late");
    });
    running = task;
    auto const handle = linkHandle(task);

    EXPECT_EQ(task->execute(), Executable::FAILURE);

    EXPECT_EQ(handle->getState(), Executable::CANCELLED);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
    EXPECT_NE(handle->getException(), nullptr);
}

TEST_F(SubmittedTaskTest, ExceptionReachesTheHandleBeforeTheResult) {
    auto const task = std::make_shared<ObservedTask>(Work());
    auto const handle = linkHandle(task);
    bool looked = false;
    task->beforeResult = [&](Executable::Result) {
        looked = true;
        EXPECT_NE(handle->getException(), nullptr);
    };

    task->execute();

    EXPECT_TRUE(looked);
}

TEST_F(SubmittedTaskTest, ExceptionWithoutAHandleIsOnlyLogged) {
    test::LogRecorder recorder;
    auto const task = submission(Work(), NORMAL, "alone");
    linkHandle(task).reset();

    EXPECT_EQ(task->execute(), Executable::FAILURE);
    EXPECT_EQ(recorder.count(caughtLine("alone", std::bad_function_call().what())), 1);
}

TEST_F(SubmittedTaskTest, HandlingAnExceptionForwardsItWhenAskedTo) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);
    auto const e = std::make_exception_ptr(std::logic_error("why"));
    recorder.onLine([&handle](test::LogLine const&) {
        EXPECT_EQ(handle->getException(), nullptr) << "forwarded before it is logged";
    });

    task->handleAndLogUnknownException(e, true);

    EXPECT_EQ(handle->getException(), e);
    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{caughtLine("work", "why"), log::WARNING}));
}

TEST_F(SubmittedTaskTest, HandlingAnExceptionOnlyLogsItOtherwise) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->handleAndLogUnknownException(std::make_exception_ptr(std::logic_error("why")), false);
    task->handleAndLogUnknownException(nullptr, false);

    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_THAT(recorder.texts(),
                ElementsAre(caughtLine("work", "why"), caughtLine("work", "Unknown exception")));
}

TEST_F(SubmittedTaskTest, HandlingNoExceptionForwardsAnUnknownOne) {
    auto const task = submission();
    auto const handle = linkHandle(task);

    task->handleAndLogUnknownException(nullptr, true);

    ASSERT_NE(handle->getException(), nullptr);
    EXPECT_THROW(std::rethrow_exception(handle->getException()), std::runtime_error);
}

TEST_F(SubmittedTaskTest, HandlingWhatIsNoStandardExceptionLetsItOut) {
    test::LogRecorder recorder;
    auto const task = submission();
    auto const handle = linkHandle(task);

    EXPECT_THROW(task->handleAndLogUnknownException(std::make_exception_ptr(42), true), int);

    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

// --- callback

TEST_F(SubmittedTaskTest, CallbackGetsTheTask) {
    std::vector<std::shared_ptr<Task>> seen;
    auto const work = std::make_shared<NamedTask>();
    SubmittedTask task(work, NORMAL,
                       [&seen](std::shared_ptr<Task> given) { seen.push_back(std::move(given)); });

    task.execute();
    EXPECT_THAT(seen, IsEmpty());
    task.performCallback();

    EXPECT_THAT(seen, ElementsAre(work));
}

TEST_F(SubmittedTaskTest, CallbackOfAFunctionGetsATaskOfItsName) {
    char const name[] = "function";
    char const* seen = nullptr;
    SubmittedTask task(
        succeed(), NORMAL, [&seen](std::shared_ptr<Task> const& given) { seen = given->name(); },
        name);

    task.performCallback();

    EXPECT_EQ(seen, name);
}

TEST_F(SubmittedTaskTest, CallbackOfANullTaskGetsNull) {
    bool called = false;
    SubmittedTask task(std::shared_ptr<Task>(), NORMAL,
                       [&called](std::shared_ptr<Task> const& given) {
                           called = true;
                           EXPECT_EQ(given, nullptr);
                       });

    task.performCallback();

    EXPECT_TRUE(called);
}

TEST_F(SubmittedTaskTest, NoCallbackIsNothingToDo) {
    test::LogRecorder recorder;
    auto const task = submission();

    task->performCallback();

    EXPECT_EQ(task->getState(), Executable::UNSCHEDULED);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(SubmittedTaskTest, CallbackRunsWithoutTheLock) {
    std::weak_ptr<SubmittedTask> running;
    bool called = false;
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL,
        [&](std::shared_ptr<Task> const&) {
            called = true;
            running.lock()->setState(Executable::READY);
        },
        "work");
    running = task;

    task->performCallback();

    EXPECT_TRUE(called);
    EXPECT_EQ(task->getState(), Executable::READY);
}

TEST_F(SubmittedTaskTest, ExceptionOfTheCallbackIsLoggedAndChangesNothing) {
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw std::runtime_error("late"); },
        "sync");
    auto const handle = linkHandle(task);
    task->execute();
    test::LogRecorder recorder;

    task->performCallback();

    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{caughtLine("sync", "late"), log::WARNING}));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    EXPECT_EQ(task->getState(), Executable::DONE);
    EXPECT_EQ(task->getResult(), Executable::SUCCESS);
}

TEST_F(SubmittedTaskTest, AnythingElseThrownByTheCallbackIsLoggedAndChangesNothing) {
    auto const task = std::make_shared<SubmittedTask>(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, "sync");
    auto const handle = linkHandle(task);
    task->execute();
    test::LogRecorder recorder;

    task->performCallback();

    EXPECT_THAT(recorder.lines(),
                ElementsAre(test::LogLine{"[SubmittedTask::performCallback():WARNING] Caught "
                                          "unknown exception during running of 'sync'.",
                                          log::WARNING}));
    EXPECT_EQ(handle->getException(), nullptr);
    EXPECT_EQ(handle->getState(), Executable::DONE);
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(SubmittedTaskTest, ExceptionsOfACallbackWithoutANameAreLogged) {
    test::LogRecorder recorder;
    SubmittedTask unknown(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw 42; }, nullptr);
    SubmittedTask standard(
        succeed(), NORMAL, [](std::shared_ptr<Task> const&) { throw std::bad_alloc(); }, nullptr);

    unknown.performCallback();
    standard.performCallback();

    EXPECT_THAT(recorder.texts(),
                ElementsAre("[SubmittedTask::performCallback():WARNING] Caught unknown exception "
                            "during running of '(null)'.",
                            caughtLine("(null)", "std::bad_alloc")));
}

// --- promise

TEST_F(SubmittedTaskTest, PromiseCanBeFulfilledOnce) {
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

TEST_F(SubmittedTaskTest, FutureCanBeTakenOnce) {
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

TEST_F(SubmittedTaskTest, FutureIsTrueAfterAFailure) {
    auto const task = submission(give(Executable::FAILURE));
    auto future = task->getFuture();

    task->execute();

    EXPECT_TRUE(future.get());
}

TEST_F(SubmittedTaskTest, FutureCanBeTakenAfterTheEnd) {
    auto const task = submission();
    task->execute();

    EXPECT_TRUE(task->getFuture().get());
}

// --- destruction

TEST_F(SubmittedTaskTest, PromiseIsBrokenByDestruction) {
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

TEST_F(SubmittedTaskTest, DestructionIsSilentAndLeavesTheHandleAlone) {
    auto task = submission();
    auto const handle = linkHandle(task);
    test::LogRecorder recorder;

    task.reset();

    EXPECT_THAT(recorder.texts(), IsEmpty());
    EXPECT_EQ(handle->getState(), Executable::UNSCHEDULED);
    EXPECT_EQ(handle->getResult(), Executable::NO_RESULT);
    EXPECT_EQ(handle->getException(), nullptr);
}

// Tells when a control block, kept by weak references alone, is given back.
template <typename T>
struct TellingAllocator {
    using value_type = T;

    explicit TellingAllocator(std::function<void()>* toCall) : tell(toCall) {}
    template <typename U>
    explicit TellingAllocator(TellingAllocator<U> const& other) : tell(other.tell) {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) {
        (*tell)();
        std::allocator<T>().deallocate(memory, count);
    }
    template <typename U>
    friend bool operator==(TellingAllocator const&, TellingAllocator<U> const&) {
        return true;
    }
    template <typename U>
    friend bool operator!=(TellingAllocator const&, TellingAllocator<U> const&) {
        return false;
    }

    std::function<void()>* tell;
};

TEST_F(SubmittedTaskTest, ReleasesPromiseCallbackHandleAndTaskInThisOrder) {
    std::vector<std::string> order;
    std::future<bool> future;
    std::function<void()> tellOfHandle = [&order] { order.emplace_back("handle"); };

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
        auto const handle =
            std::allocate_shared<TaskHandle>(TellingAllocator<TaskHandle>(&tellOfHandle), nullptr);
        task->setHandle(handle);
    }
    ASSERT_THAT(order, IsEmpty());

    task.reset();

    EXPECT_THAT(order, ElementsAre("callback after promise", "handle", "task"));
}

TEST_F(SubmittedTaskTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::getRank), 2u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::getPriority), 3u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::setState), 4u);
    EXPECT_EQ(test::virtualSlot(&SubmittedTask::setResult), 5u);
    EXPECT_EQ(test::virtualSlotCount("SubmittedTask"), 6u);
}

}  // namespace
}  // namespace ovra::concurrent
