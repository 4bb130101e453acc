#include <ovra/concurrent/SubmittedTask.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/LogRecorder.h>

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

TaskPriority priorityOf(int value) {
    return static_cast<TaskPriority>(value);
}

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

}  // namespace
}  // namespace ovra::concurrent
