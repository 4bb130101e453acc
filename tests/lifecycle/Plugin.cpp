#include <tests/lifecycle/Plugin.h>

#include <memory>
#include <string>
#include <thread>

#include <ovra/ovra.h>

namespace ovra::test {
namespace {

using concurrent::Executable;
using concurrent::Task;
using concurrent::TaskExecutor;

std::shared_ptr<concurrent::TaskHandle> lastHandle;
std::weak_ptr<concurrent::SubmittedTask> lastTask;

// Shared by the work and its callback, and destroyed with them: nothing of it may be left at
// unload.
struct Play {
    std::string situation;
    std::weak_ptr<TaskExecutor> executor;
    Gate* waiterIsOut;
    void (*report)(char const*);
    Gate busy;
    Gate queuedIsDropped;

    void waitForTheEnd() {
        busy.open();
        while (!executor.expired()) {
            std::this_thread::yield();
        }
        if (situation == "queued") {
            queuedIsDropped.wait();
        }
    }
    Executable::Result work() {
        if (situation != "callback") {
            waitForTheEnd();
        }
        report("work ended");
        return Executable::SUCCESS;
    }
    void callBack() {
        if (situation == "callback") {
            waitForTheEnd();
        } else if (situation == "waited") {
            waiterIsOut->wait();
        }
        report("called back");
    }
};

void begin(char const* situation, Gate* waiterIsOut, void (*report)(char const*)) {
    auto const executor = concurrent::getNoStarveTaskExecutor();
    if (std::string(situation) == "idle") {
        return;
    }
    auto const play = std::make_shared<Play>();
    play->situation = situation;
    play->executor = executor;
    play->waiterIsOut = waiterIsOut;
    play->report = report;
    auto const task = std::make_shared<concurrent::SubmittedTask>(
        [play] { return play->work(); }, concurrent::NORMAL,
        [play](std::shared_ptr<Task> const&) { play->callBack(); }, "scene");
    lastTask = task;
    lastHandle =
        dynamic_cast<concurrent::TaskExecutorImpl&>(*executor).addSubmittedTaskToQueue(task);
    play->busy.wait();
    if (play->situation == "queued") {
        auto const watch = atEnd([play] {
            play->report("queued work dropped");
            play->queuedIsDropped.open();
        });
        executor->submitTask(
            [watch, report] {
                report("queued work ran");
                return Executable::SUCCESS;
            },
            concurrent::NORMAL, {}, "queued");
    }
}

void wait(Gate* isTaken) {
    auto const handle = std::move(lastHandle);
    isTaken->open();
    handle->waitForCompletion();
}

bool isAwaited() {
    return lastTask.use_count() >= 2;
}

void runOne() {
    concurrent::getNoStarveTaskExecutor()
        ->submitTask([] { return Executable::SUCCESS; }, concurrent::NORMAL, {}, "one")
        ->waitForCompletion();
}

void setLogLevel(int level) {
    log::setLogLevel(static_cast<log::LogLevel>(level));
}

int getLogLevel() {
    return log::getLogLevel();
}

void const* sharedExecutor() {
    return concurrent::getNoStarveTaskExecutor().get();
}

}  // namespace
}  // namespace ovra::test

extern "C" OVRA_API ovra::test::Plugin const plugin;
ovra::test::Plugin const plugin = {
    ovra::test::begin,       ovra::test::wait,        ovra::test::isAwaited,     ovra::test::runOne,
    ovra::test::setLogLevel, ovra::test::getLogLevel, ovra::test::sharedExecutor};
