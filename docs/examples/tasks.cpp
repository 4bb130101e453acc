#include <iostream>

#include <ovra/ovra.h>

using namespace ovra::concurrent;

int main() {
    auto const executor = getNoStarveTaskExecutor();  // One worker thread, made here.
    auto const handle = executor->submitTask(
        [] {
            std::cout << "working in the background\n";
            return Executable::SUCCESS;
        },
        HIGH, nullptr, "first task");
    handle->waitForCompletion();
    std::cout << (handle->getResult() == Executable::SUCCESS ? "done\n" : "failed\n");
}
