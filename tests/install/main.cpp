#include <ovra/ovra.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

class CountingHandler : public ovra::log::LogHandler {
public:
    void handleLogMessage(char const*, ovra::log::LogLevel) override { ++count; }
    int count = 0;
};

// The library must cope with classes of which it knows no more than their functions: an application
// may be built without run-time type information.
class NewestFirst : public ovra::concurrent::TaskRankingStrategy {
public:
    void updateRank(ovra::concurrent::SubmittedTask* task) override { task->setRank(++picks); }

private:
    unsigned int picks = 0;
};

class CountedTask : public ovra::concurrent::SubmittedTask {
public:
    using SubmittedTask::SubmittedTask;
    void setState(ovra::concurrent::Executable::State newState) override {
        ++changes;
        SubmittedTask::setState(newState);
    }
    int changes = 0;
};

bool runsDerivedClasses() {
    using namespace ovra::concurrent;
    auto const queue = std::make_shared<SubmittedTasksQueue>(std::make_shared<NewestFirst>());
    TaskExecutorImpl executor(1, queue);
    auto const task = std::make_shared<CountedTask>([] { return Executable::SUCCESS; }, NORMAL,
                                                    nullptr, "derived");
    auto const handle = executor.addSubmittedTaskToQueue(task);
    handle->waitForCompletion();
    return handle->getResult() == Executable::SUCCESS && task->changes == 2;
}

}  // namespace

// Uses a little of each part of the library, so that each is compiled, linked and run.
int main() {
    using ovra::concurrent::Executable;

    ovra_xcode_target_object_glue();

    auto const handler = std::make_shared<CountingHandler>();
    ovra::log::addLogHandler(handler, "counting");
    ovra::log::setLogLevel(ovra::log::INFO);

    auto const executor = ovra::concurrent::getNoStarveTaskExecutor();
    auto const handle = executor->submitTask([] { return Executable::SUCCESS; },
                                             ovra::concurrent::NORMAL, nullptr, "consumer");
    handle->waitForCompletion();

    ovra::fs::FileHandle const here(".");
    bool const works = handle->getResult() == Executable::SUCCESS && handler->count > 0 &&
                       runsDerivedClasses() && here.IsDirectory() &&
                       ovra::fs::FilePath("a/b.c").Extension() == ".c";
    std::printf("ovra %s: %s\n", OVRA_VERSION, works ? "works" : "does not work");
    return works ? 0 : 1;
}
