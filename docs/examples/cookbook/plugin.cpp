// A plug-in on ovra: its executor is made when it starts and destroyed when it stops, so that
// nothing of the library runs when it is unloaded.

#include <memory>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

using namespace ovra::concurrent;

namespace {
std::unique_ptr<TaskExecutor> executor;
}

extern "C" int pluginStart() {
    executor = std::make_unique<TaskExecutorImpl>(
        1, std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>()));
    auto const handle =
        executor->submitTask([] { return Executable::SUCCESS; }, NORMAL, nullptr, "plugin");
    handle->waitForCompletion();
    return handle->getResult() == Executable::SUCCESS ? 0 : 1;
}

extern "C" void pluginStop() {
    executor.reset();  // Waits for the running work.
}
