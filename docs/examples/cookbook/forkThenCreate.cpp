// Forks first, and makes executors and sinks afterwards: threads do not survive a fork.

#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include <ovra/concurrent/TaskExecutors.h>

using namespace ovra::concurrent;

int main() {
    pid_t const child = fork();
    if (child == -1) {
        return 1;
    }
    auto const executor = getNoStarveTaskExecutor();  // In each process one of its own.
    auto const handle =
        executor->submitTask([] { return Executable::SUCCESS; }, NORMAL, nullptr, "after the fork");
    handle->waitForCompletion();
    if (child == 0) {
        return handle->getResult() == Executable::SUCCESS ? 0 : 1;
    }
    int status = 1;
    waitpid(child, &status, 0);
    std::cout << (status == 0 ? "both worked\n" : "the child failed\n");
}
