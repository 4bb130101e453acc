// boundedGroup: counts the letters of all lines of its input, four lines at a time.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/extra.h>

using namespace ovra::concurrent;

int main() {
    auto const queue = std::make_shared<SubmittedTasksQueue>(
        std::make_shared<HighestPriorityTaskRankingStrategy>());
    auto const executor = std::make_shared<TaskExecutorImpl>(2, queue);
    std::atomic<std::size_t> letters{0};

    ovra::extra::TaskGroup group(executor, 4);
    for (std::string line; std::getline(std::cin, line);) {
        auto const work = [&letters, line] {
            letters += line.size();
            return Executable::SUCCESS;
        };
        // At the limit the group refuses: so no more than four lines are in memory.
        while (!group.submitTask(work, LOW, {}, "count")) {
            group.waitFor(std::chrono::milliseconds(1));
        }
    }
    group.wait();
    std::printf("%zu letters\n", letters.load());
}
