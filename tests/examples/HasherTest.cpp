#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutors.h>

#include <examples/manifest/FileSearch.h>
#include <examples/manifest/HashAll.h>
#include <examples/manifest/Hasher.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace manifest;
using namespace ovra::concurrent;
using namespace ovra::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t SMALL = 10;
constexpr std::int64_t LARGE = 10'000'000;

// Notes its path instead of reading a file.
class NotingTask : public HashTask {
public:
    NotingTask(std::string const& filePath, std::int64_t fileSizeBytes,
               std::vector<std::string>& begun)
        : HashTask(filePath, fileSizeBytes, std::make_shared<Progress>(1, fileSizeBytes, false)),
          order(begun) {}
    Result execute() override {
        order.push_back(path());
        return SUCCESS;
    }

private:
    std::vector<std::string>& order;
};

// A file that is read in no time.
class EmptyTask : public HashTask {
public:
    explicit EmptyTask(std::shared_ptr<Progress> const& shared) : HashTask("x", SMALL, shared) {}
    Result execute() override { return SUCCESS; }
};

class ThrowingTask : public HashTask {
public:
    ThrowingTask() : HashTask("x", SMALL, std::make_shared<Progress>(1, SMALL, false)) {}
    Result execute() override { throw std::runtime_error("broken"); }
};

class HasherTest : public BoundedTest {
protected:
    // Holds the one worker until the gate opens.
    void holdWorker(Gate& gate) {
        executor->submitTask(
            [&gate] {
                gate.wait();
                return Executable::SUCCESS;
            },
            HIGHEST, nullptr, "gate");
    }

    std::vector<std::string> orderOf(std::vector<FoundFile> const& files,
                                     std::string const& first) {
        Gate gate;  // Until nearly all are queued.
        holdWorker(gate);
        std::size_t made = 0;
        Hasher hasher(executor, progress, interrupt);
        hashAll(
            hasher, files, first,
            [&](FoundFile const& file) {
                if (++made == std::min(files.size(), TASKS_UNDER_WAY)) {
                    gate.open();
                }
                return std::make_shared<NotingTask>(file.path, file.sizeBytes, begun);
            },
            [](std::size_t, HashTask const&) {});
        return begun;
    }

    std::vector<std::string> begun;
    Interrupt interrupt;
    std::shared_ptr<Progress> progress = std::make_shared<Progress>(0, 0, false);
    std::shared_ptr<TaskExecutor> executor = makeExecutor(1);
};

TEST_F(HasherTest, SmallFilesRunBeforeLargeOnes) {
    EXPECT_THAT(orderOf({{"a", LARGE}, {"b", SMALL}, {"c", LARGE}, {"d", SMALL}}, ""),
                ElementsAre("b", "d", "a", "c"));
}

TEST_F(HasherTest, FirstRunsBeforeAllWhateverItsSize) {
    EXPECT_THAT(
        orderOf({{"d/a", SMALL}, {"d/m/x", LARGE}, {"d/m/y", SMALL}, {"d/z", SMALL}}, "d/m"),
        ElementsAre("d/m/x", "d/m/y", "d/a", "d/z"));
}

TEST_F(HasherTest, FirstCanBeOneFileOrEndWithASlash) {
    EXPECT_THAT(orderOf({{"d/a", SMALL}, {"d/m", LARGE}, {"d/mm", LARGE}}, "d/m"),
                ElementsAre("d/m", "d/a", "d/mm"));
    begun.clear();
    EXPECT_THAT(orderOf({{"d/a", SMALL}, {"d/m/x", LARGE}}, "d/m/"), ElementsAre("d/m/x", "d/a"));
}

TEST_F(HasherTest, OrderHoldsBeyondTheTasksUnderWay) {
    std::vector<FoundFile> files(2 * TASKS_UNDER_WAY, {"d/small", SMALL});
    files.front() = {"d/large", LARGE};
    files.back() = {"d/m", LARGE};
    orderOf(files, "d/m");
    ASSERT_EQ(files.size(), begun.size());
    EXPECT_EQ("d/m", begun.front());
    EXPECT_EQ("d/large", begun.back());
}

TEST_F(HasherTest, FewTasksExistAtATime) {
    std::vector<FoundFile> const files(3 * TASKS_UNDER_WAY + 1, {"x", SMALL});
    std::size_t made = 0;
    std::vector<std::size_t> reported;
    Hasher hasher(executor, progress, interrupt);
    hashAll(
        hasher, files, "",
        [&](FoundFile const&) {
            ++made;
            EXPECT_LE(made - reported.size(), TASKS_UNDER_WAY);
            return std::make_shared<EmptyTask>(progress);
        },
        [&](std::size_t number, HashTask const&) { reported.push_back(number); });
    EXPECT_EQ(files.size(), made);
    std::vector<std::size_t> inOrder(files.size());
    std::iota(inOrder.begin(), inOrder.end(), 0);
    EXPECT_EQ(inOrder, reported);
}

TEST_F(HasherTest, TaskThatWasWaitedForTakesNoMemory) {
    // Under a sanitizer, whose runtime allocates, mallinfo2() gives zeros.
    constexpr std::size_t COUNT = 10'000;
    Hasher hasher(executor, progress, interrupt);
    std::size_t const before = mallinfo2().uordblks;
    for (std::size_t number = 0; number < COUNT; number += 2) {
        hasher.submit(std::make_shared<EmptyTask>(progress));
        hasher.submit(std::make_shared<EmptyTask>(progress));
        hasher.waitFor(number + 1);  // In either order.
        hasher.waitFor(number);
    }
    EXPECT_EQ(COUNT, hasher.submitted());
    EXPECT_LT(mallinfo2().uordblks, before + COUNT * 16);
}

TEST_F(HasherTest, SubmittedSmallFileGoesAheadAndRaisedOneAheadOfAll) {
    Gate gate;
    holdWorker(gate);
    Hasher hasher(executor, progress, interrupt);
    for (FoundFile const& file : {FoundFile{"large", LARGE}, {"small", SMALL}, {"raised", LARGE}}) {
        hasher.submit(std::make_shared<NotingTask>(file.path, file.sizeBytes, begun));
    }
    hasher.raise(2);
    EXPECT_EQ(1u, hasher.submittedAsSmall());
    gate.open();
    for (std::size_t const number : {0U, 1U, 2U}) {
        hasher.waitFor(number);
    }
    EXPECT_THAT(begun, ElementsAre("raised", "small", "large"));
}

TEST_F(HasherTest, CancelPassesOverWhatIsQueuedAndTakesNoMore) {
    Gate gate;
    holdWorker(gate);
    Hasher hasher(executor, progress, interrupt);
    hasher.submit(std::make_shared<NotingTask>("a", SMALL, begun));
    hasher.submit(std::make_shared<NotingTask>("b", LARGE, begun));
    hasher.cancel();
    EXPECT_FALSE(hasher.submit(std::make_shared<NotingTask>("c", SMALL, begun)));
    EXPECT_EQ(2u, hasher.submitted());
    gate.open();
    hasher.waitFor(0);
    hasher.waitFor(1);
    EXPECT_THAT(begun, IsEmpty());
}

TEST_F(HasherTest, InterruptCancels) {
    Gate gate;
    holdWorker(gate);
    Hasher hasher(executor, progress, interrupt);
    hasher.submit(std::make_shared<NotingTask>("a", SMALL, begun));
    interrupt.request();
    gate.open();
    hasher.waitFor(0);
    EXPECT_THAT(begun, IsEmpty());
    EXPECT_FALSE(hasher.submit(std::make_shared<NotingTask>("b", SMALL, begun)));
}

TEST_F(HasherTest, WhatTheWorkThrowsReachesTheWaiter) {
    Hasher hasher(executor, progress, interrupt);
    hasher.submit(std::make_shared<ThrowingTask>());
    try {
        hasher.waitFor(0);
        FAIL() << "nothing was thrown";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ("broken", error.what());
    }
}

TEST_F(HasherTest, ExecutorThatTakesNoWorkIsAnError) {
    auto const queue = std::make_shared<SubmittedTasksQueue>(nullptr);
    queue->close();
    Hasher hasher(std::make_shared<TaskExecutorImpl>(1, queue), progress, interrupt);
    EXPECT_THROW(hasher.submit(std::make_shared<NotingTask>("a", SMALL, begun)),
                 std::runtime_error);
}

TEST_F(HasherTest, JobsChooseTheExecutor) {
    EXPECT_EQ(getNoStarveTaskExecutor(), makeExecutor(0));
    EXPECT_NE(makeExecutor(2), makeExecutor(2));
}

}  // namespace
