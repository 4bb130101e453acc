// A group under many submitters, and in random traces against a model.

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/extra/TaskGroup.h>
#include <tests/extra/WorkSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::extra {
namespace {

using concurrent::Callback;
using concurrent::NORMAL;
using concurrent::succeed;
using concurrent::Task;
using concurrent::TaskHandle;
using std::chrono::milliseconds;
using test::ManualExecutor;

class TaskGroupTraceTest : public ovra::test::BoundedTest {};

// Counts what it has been given and has not called back for.
class CountingExecutor : public concurrent::TaskExecutorImpl {
public:
    CountingExecutor() : TaskExecutorImpl(2, concurrent::makeQueue()) {}
    std::shared_ptr<TaskHandle> submitTask(concurrent::Work const& work,
                                           concurrent::TaskPriority priority,
                                           Callback const& callback, char const* name) override {
        int const now = ++pending;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
        }
        auto const counted = [this, callback](std::shared_ptr<Task> const& task) {
            --pending;
            callback(task);
        };
        return TaskExecutorImpl::submitTask(work, priority, counted, name);
    }
    using TaskExecutorImpl::submitTask;

    std::atomic<int> pending{0};
    std::atomic<int> most{0};
};

TEST_F(TaskGroupTraceTest, TheLimitHoldsUnderEightSubmitters) {
    auto const executor = std::make_shared<CountingExecutor>();
    TaskGroup group(executor, 5);
    int const each = ovra::test::scaled(500);
    std::vector<std::thread> submitters;
    for (int i = 0; i < 8; ++i) {
        submitters.emplace_back([&] {
            for (int done = 0; done < each;) {
                if (group.submitTask(succeed(), NORMAL, {}, nullptr)) {
                    ++done;
                } else {
                    std::this_thread::yield();
                }
                EXPECT_LE(group.pending(), 5u);
            }
        });
    }
    for (auto& submitter : submitters) {
        submitter.join();
    }
    group.wait();
    EXPECT_EQ(executor->most, 5);
    EXPECT_EQ(executor->pending, 0);
    EXPECT_EQ(group.pending(), 0u);
}

TEST_F(TaskGroupTraceTest, RandomTraces) {
    using ovra::test::RandomSource;
    RandomSource random(ovra::test::runSeed());
    int const traces = ovra::test::scaled(300);
    for (int trace = 0; trace < traces; ++trace) {
        auto executor = std::make_shared<ManualExecutor>();
        std::size_t const limit = random.oneIn(2) ? 0 : random.below(8) + 1;
        auto group = std::make_unique<TaskGroup>(executor, limit);
        std::size_t queued = 0;  // The model: what is in the queue, cancelled or not.
        std::size_t callbacks = 0;
        std::vector<std::shared_ptr<TaskHandle>> handles;
        bool isClosed = false;
        for (int step = 0; step < 60; ++step) {
            switch (random.below(8)) {
                case 0:
                case 1:
                case 2: {
                    bool const isAccepted = !isClosed && (limit == 0 || queued < limit);
                    Callback callback;
                    if (random.oneIn(2)) {
                        callback = [&callbacks](auto const&) { ++callbacks; };
                    }
                    auto const priority = static_cast<concurrent::TaskPriority>(random.below(5));
                    auto const handle =
                        random.oneIn(2)
                            ? group->submitTask(concurrent::give(random.between(2, 4)), priority,
                                                callback, nullptr)
                            : group->submitTask(std::make_shared<concurrent::NamedTask>(), priority,
                                                callback);
                    ASSERT_EQ(handle != nullptr, isAccepted) << ovra::test::seedNote();
                    queued += isAccepted ? 1 : 0;
                    if (handle && random.oneIn(2)) {
                        handles.push_back(handle);
                    }
                    break;
                }
                case 3:
                case 4:
                    if (executor->runNext()) {
                        --queued;
                    }
                    break;
                case 5:
                    if (!handles.empty()) {
                        handles[random.below(static_cast<std::uint32_t>(handles.size()))]->cancel();
                    }
                    break;
                case 6:
                    if (random.oneIn(10)) {
                        group->cancelAll();
                    }
                    break;
                default:
                    if (random.oneIn(30)) {
                        executor->close();
                        isClosed = true;
                        queued = 0;
                    }
                    break;
            }
            ASSERT_EQ(group->pending(), queued) << ovra::test::seedNote() << ", trace " << trace;
            ASSERT_EQ(group->waitFor(milliseconds(0)), queued == 0);
        }
        if (random.oneIn(2)) {
            group.reset();
            executor->runAll();
        } else {
            executor->runAll();
            ASSERT_EQ(group->pending(), 0u);
        }
    }
}

}  // namespace
}  // namespace ovra::extra
