// Submits work to an executor and follows it: priorities, callbacks, cancelling, exceptions.

#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

using namespace ovra::concurrent;

int main() {
    // An application without special needs takes getNoStarveTaskExecutor() instead of making one.
    auto const queue = std::make_shared<SubmittedTasksQueue>(
        std::make_shared<HighestPriorityTaskRankingStrategy>());
    auto const executor = std::make_shared<TaskExecutorImpl>(1, queue);

    // Holds the one worker until everything below is queued, so that the order is plain to see.
    std::promise<void> everythingIsQueued;
    executor->submitTask(
        [ready = everythingIsQueued.get_future().share()] {
            ready.wait();
            return Executable::SUCCESS;
        },
        HIGHEST, nullptr, "gate");

    auto const saying = [](char const* text) {
        return [text] {
            std::cout << std::string(text) + '\n';  // In one piece: others print as well.
            return Executable::SUCCESS;
        };
    };
    auto const later = executor->submitTask(saying("third: queued at LOW"), LOW, nullptr, "low");
    executor->submitTask(saying("second: queued at HIGH"), HIGH, nullptr, "high");
    auto const raised =
        executor->submitTask(saying("first: raised to HIGHEST"), LOW, nullptr, "raised");
    raised->updatePriority(HIGHEST);

    auto const cancelled = executor->submitTask(saying("never"), LOW, nullptr, "cancelled");
    cancelled->cancel();

    auto const failing = executor->submitTask(
        []() -> Executable::Result { throw std::runtime_error("out of paper"); }, LOW,
        [](std::shared_ptr<Task> const& task) {
            std::cout << std::string(task->name()) + " has ended\n";
        },
        "printing");

    everythingIsQueued.set_value();
    later->waitForCompletion();
    cancelled->waitForCompletion();
    failing->waitForCompletion();  // Its callback may still be running after this.

    if (cancelled->getResult() != Executable::ABORTED) {
        return 1;
    }
    try {
        std::rethrow_exception(failing->getException());
    } catch (std::exception const& error) {
        std::cout << std::string("printing failed: ") + error.what() + '\n';
    }
    return 0;
}
