// What a handle shows before each instruction of the library that ends its task.

#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/Stepping.h>

namespace ovra::concurrent {
namespace {

class TaskInstructionTest : public test::BoundedTest {
protected:
    void SetUp() override {
        BoundedTest::SetUp();
        if (*test::noSteppingBecause() != '\0') {
            GTEST_SKIP() << test::noSteppingBecause();
        }
    }

    // Executes tasks with this work; `look` is what another thread does meanwhile.
    static void lookMeanwhile(Work const& work, std::function<void(TaskHandle&)> const& look) {
        test::atEachInstruction([&](test::Stepping& step) {
            SCOPED_TRACE(step.nth);
            auto const task = submission(work);
            auto const handle = linkHandle(task);
            step([&] { task->execute(); }, [&] { look(*handle); });
            EXPECT_TRUE(handle->isDone()) << "otherwise no look would have anything to see";
        });
    }
};

TEST_F(TaskInstructionTest, HandleThatIsDoneHasTheResult) {
    lookMeanwhile(succeed(), [](TaskHandle& handle) {
        if (handle.isDone()) {
            EXPECT_EQ(handle.getResult(), Executable::SUCCESS);
        }
    });
}

TEST_F(TaskInstructionTest, HandleThatIsDoneHasTheException) {
    lookMeanwhile([]() -> Executable::Result { throw std::runtime_error("no"); },
                  [](TaskHandle& handle) {
                      if (handle.isDone()) {
                          EXPECT_NE(handle.getException(), nullptr);
                          EXPECT_EQ(handle.getResult(), Executable::FAILURE);
                      }
                  });
}

TEST_F(TaskInstructionTest, TaskThatIsDoneHasPushedItsResult) {
    test::atEachInstruction([](test::Stepping& step) {
        auto const task = submission();
        auto const handle = linkHandle(task);
        step([&] { task->execute(); },
             [&] {
                 if (task->getState() == Executable::DONE) {
                     EXPECT_TRUE(handle->isDone()) << step.nth;
                     EXPECT_EQ(task->getResult(), handle->getResult()) << step.nth;
                 }
             });
    });
}

TEST_F(TaskInstructionTest, ResultSetAsTheTaskEndsIsThatOfTaskAndHandle) {
    test::atEachInstruction([](test::Stepping& step) {
        auto const task = submission();
        auto const handle = linkHandle(task);
        step([&] { task->execute(); }, [&] { task->setResult(Executable::FAILURE); });
        EXPECT_EQ(task->getResult(), handle->getResult()) << step.nth;
    });
}

}  // namespace
}  // namespace ovra::concurrent
