#include <ovra/extra/MakeTask.h>

#include <functional>
#include <memory>

#include <gtest/gtest.h>
#include <tests/concurrent/ExecutorTest.h>
#include <tests/extra/AsyncSupport.h>
#include <tests/fs/Allocations.h>

namespace ovra::extra {
namespace {

using concurrent::Executable;

class MakeTaskTest : public concurrent::ExecutorTest {};

Executable::Result fail() {
    return Executable::FAILURE;
}

TEST_F(MakeTaskTest, CallsTheFunctionAndReturnsItsResult) {
    int calls = 0;
    auto const task = makeTask([&calls] {
        ++calls;
        return calls < 3 ? Executable::REPEAT : Executable::ABORTED;
    });
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(task->execute(), Executable::REPEAT);
    EXPECT_EQ(task->execute(), Executable::REPEAT);
    EXPECT_EQ(task->execute(), Executable::ABORTED);
    EXPECT_EQ(makeTask(fail)->execute(), Executable::FAILURE);
    EXPECT_EQ(makeTask(std::function<Executable::Result()>(fail))->execute(), Executable::FAILURE);
}

TEST_F(MakeTaskTest, KeepsThePointerToTheNameAndNull) {
    char const name[] = "name";
    EXPECT_EQ(makeTask(fail, name)->name(), name);
    EXPECT_EQ(makeTask(fail, nullptr)->name(), nullptr);
    EXPECT_EQ(makeTask(fail)->name(), nullptr);
}

TEST_F(MakeTaskTest, TakesMoveOnlyFunctionsAndDestroysThemWithTheTask) {
    auto number = std::make_shared<int>(5);
    std::weak_ptr<int> const seen = number;
    struct MoveOnly {
        std::unique_ptr<std::shared_ptr<int>> held;
        Executable::Result operator()() {
            return **held == 5 ? Executable::SUCCESS : Executable::FAILURE;
        }
    };
    auto task = makeTask(MoveOnly{std::make_unique<std::shared_ptr<int>>(std::move(number))});
    EXPECT_EQ(task->execute(), Executable::SUCCESS);
    EXPECT_FALSE(seen.expired());
    task.reset();
    EXPECT_TRUE(seen.expired());
}

TEST_F(MakeTaskTest, CopiesNothing) {
    int copies = 0;
    EXPECT_EQ(makeTask(Counted(&copies))->execute(), Executable::SUCCESS);
    EXPECT_EQ(copies, 0);
}

TEST_F(MakeTaskTest, IsOneAllocation) {
    char const captured[200] = {};
    fs::test::Allocations const allocations;
    auto const task = makeTask(
        [captured] { return captured[0] == '\0' ? Executable::SUCCESS : Executable::FAILURE; });
    EXPECT_EQ(allocations.made(), 1);
    EXPECT_EQ(task->execute(), Executable::SUCCESS);
}

TEST_F(MakeTaskTest, RunsAsAnyTask) {
    auto const executor = makeExecutor(1);
    auto const task = makeTask(fail, "failing");
    std::shared_ptr<concurrent::Task> calledBack;
    test::Gate called;
    auto const handle = executor->submitTask(task, concurrent::NORMAL,
                                             [&](std::shared_ptr<concurrent::Task> given) {
                                                 calledBack = std::move(given);
                                                 called.open();
                                             });
    called.wait();
    EXPECT_EQ(calledBack, task);
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

TEST_F(MakeTaskTest, AnEmptyFunctionEndsInFailure) {
    auto const executor = makeExecutor(1);
    auto const handle = executor->submitTask(makeTask(std::function<Executable::Result()>()),
                                             concurrent::NORMAL, {});
    handle->waitForCompletion();
    EXPECT_EQ(handle->getResult(), Executable::FAILURE);
}

}  // namespace
}  // namespace ovra::extra
