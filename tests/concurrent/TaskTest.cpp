#include <ovra/concurrent/Task.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <tests/concurrent/Work.h>
#include <tests/support/VirtualTable.h>

namespace ovra::concurrent {
namespace {

using LambdaFunctionTask = SubmittedTask::LambdaFunctionTask;

static_assert(std::is_convertible_v<Task*, Executable*>, "derives publicly");
static_assert(std::is_abstract_v<Task>);
static_assert(std::has_virtual_destructor_v<Task>);
static_assert(sizeof(Task) == sizeof(Executable), "no data of its own");
static_assert(std::is_convertible_v<LambdaFunctionTask*, Task*>);
static_assert(sizeof(LambdaFunctionTask) == sizeof(Task) + sizeof(Work) + sizeof(char const*),
              "the function, the name and nothing else");

class NamelessTask : public Task {
public:
    Result execute() override { return SUCCESS; }
};

TEST(TaskTest, IsUnnamedUnlessItSaysOtherwise) {
    NamelessTask const nameless;
    Task const& task = nameless;

    EXPECT_STREQ(task.name(), "Unnamed");
}

TEST(TaskTest, NameCanBeOverridden) {
    NamedTask const named(succeed(), "sync");
    Task const& task = named;

    EXPECT_STREQ(task.name(), "sync");
}

TEST(TaskTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&Task::execute), 2u);
    EXPECT_EQ(test::virtualSlot(&Task::name), 3u);
    EXPECT_EQ(test::virtualSlotCount("Task"), 4u);
}

TEST(LambdaFunctionTaskTest, OperationsKeepTheirOrderInTheVirtualTable) {
    EXPECT_EQ(test::virtualSlot(&LambdaFunctionTask::execute), 2u);
    EXPECT_EQ(test::virtualSlot(&LambdaFunctionTask::name), 3u);
}

TEST(LambdaFunctionTaskTest, ReturnsWhatTheFunctionReturns) {
    for (int const value : {1, 2, 3, 4, 5, 0, 6, -1, INT32_MAX}) {
        LambdaFunctionTask task(give(value), "work");

        EXPECT_EQ(std::int32_t{task.execute()}, value);
    }
}

TEST(LambdaFunctionTaskTest, CallsTheFunctionOnceForEachExecution) {
    int calls = 0;
    LambdaFunctionTask task(
        [&calls] {
            ++calls;
            return Executable::SUCCESS;
        },
        "work");
    EXPECT_EQ(calls, 0);

    task.execute();
    EXPECT_EQ(calls, 1);
    task.execute();
    EXPECT_EQ(calls, 2);
}

TEST(LambdaFunctionTaskTest, LetsExceptionsOfTheFunctionOut) {
    LambdaFunctionTask task([]() -> Executable::Result { throw std::out_of_range("far"); }, "work");

    EXPECT_THROW(task.execute(), std::out_of_range);
}

TEST(LambdaFunctionTaskTest, EmptyFunctionThrowsWhenExecuted) {
    LambdaFunctionTask task(Work(), "work");

    EXPECT_THROW(task.execute(), std::bad_function_call);
}

TEST(LambdaFunctionTaskTest, KeepsThePointerAndNotTheTextOfItsName) {
    char name[] = "before";
    LambdaFunctionTask const task(succeed(), name);
    name[0] = 'B';

    EXPECT_EQ(task.name(), name);
    EXPECT_STREQ(task.name(), "Before");
}

TEST(LambdaFunctionTaskTest, NullNameStaysNull) {
    LambdaFunctionTask const task(succeed(), nullptr);

    EXPECT_EQ(task.name(), nullptr);
}

TEST(LambdaFunctionTaskTest, OwnsItsFunctionUntilItIsDestroyed) {
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watched = held;
    {
        std::unique_ptr<Task> task;
        {
            Work const work = [held] { return Executable::SUCCESS; };
            held.reset();
            task = std::make_unique<LambdaFunctionTask>(work, "work");
        }
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace ovra::concurrent
