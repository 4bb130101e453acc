// An application that ends, or forks, while an executor is in the middle of something:
//
//     lifecycleApplication <end> <situation>
//
// Prints what happens, a line each. See Scene.h for the situations.

#include <sys/wait.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>

#include <tests/lifecycle/AsyncScene.h>
#include <tests/lifecycle/Scene.h>
#include <tests/support/Deadline.h>

namespace ovra::test {
namespace {

using concurrent::Executable;
using concurrent::getNoStarveTaskExecutor;
using concurrent::TaskExecutor;
using concurrent::TaskExecutorImpl;

std::shared_ptr<TaskExecutor> makeExecutor(unsigned int workers = 1) {
    return std::make_shared<TaskExecutorImpl>(
        workers, std::make_shared<concurrent::SubmittedTasksQueue>(
                     std::make_shared<concurrent::NoStarveTaskRankingStrategy>()));
}

void sayOutcome(Scene const& scene) {
    say("outcome: " + scene.outcome() + (scene.isTaskHeld() ? ", still held" : ""));
}

void destroyed(std::string const& situation) {
    auto executor = makeExecutor();
    Scene const scene(situation, executor);
    say("ending");
    executor.reset();
    say("executor destroyed");
    sayOutcome(scene);
}

// The worker itself releases the last reference to the executor.
void ownWorker(std::string const& situation) {
    auto executor = makeExecutor();
    std::weak_ptr<concurrent::SubmittedTask> submitted;
    Gate isHeldAlone;
    auto const letGo = [&] {
        isHeldAlone.wait();
        if (situation == "waited") {
            // The worker's reference to the task, and the waiter's.
            yieldUntilTrue([&] { return submitted.use_count() >= 2; });
        }
        say("ending");
        executor.reset();
        say("survived");
    };
    auto task = std::make_shared<concurrent::SubmittedTask>(
        [&] {
            if (situation != "callback") {
                letGo();
            }
            return Executable::SUCCESS;
        },
        concurrent::NORMAL,
        [&](std::shared_ptr<concurrent::Task> const&) {
            if (situation == "callback") {
                letGo();
            }
        },
        "suicidal");
    submitted = task;
    auto const handle = dynamic_cast<TaskExecutorImpl&>(*executor).addSubmittedTaskToQueue(task);
    task.reset();
    if (situation == "queued") {
        executor->submitTask(
            [] {
                say("queued work ran");
                return Executable::SUCCESS;
            },
            concurrent::NORMAL, {}, "queued");
    }
    isHeldAlone.open();
    if (situation == "waited") {
        handle->waitForCompletion();
        say("waiter released");
    }
    Gate().wait();  // The process ends under it.
}

// Another worker still runs a task when the first releases the executor.
void ownWorkerOfTwo(std::string const& situation) {
    auto executor = makeExecutor(2);
    Scene const scene(situation, executor);
    executor->submitTask(
        [&] {
            say("ending");
            executor.reset();
            say("survived");
            return Executable::SUCCESS;
        },
        concurrent::NORMAL, {}, "suicidal");
    Gate().wait();
}

// Lives as long as the process, as an application's static would: exit() does not run its
// destructor.
Scene* shared = nullptr;

void makeSharedScene(std::string const& situation) {
    // Registered before the executor is made, so that it runs after the executor is destroyed.
    std::atexit([] {
        say("executor destroyed");
        sayOutcome(*shared);
    });
    shared = new Scene(situation, getNoStarveTaskExecutor());
    shared->leaveWaiter();
}

void exitWhile(std::string const& situation) {
    makeSharedScene(situation);
    say("ending");
    std::exit(0);
}

void exitByWorker(std::string const&) {
    Gate submitted;
    getNoStarveTaskExecutor()->submitTask(
        [&] {
            submitted.wait();
            say("ending");
            std::exit(0);
            return Executable::SUCCESS;
        },
        concurrent::NORMAL, {}, "exiting");
    submitted.open();
    Gate().wait();
}

void immediateExit(std::string const& situation) {
    makeSharedScene(situation);
    say("ending");
    _exit(0);
}

void quickExit(std::string const& situation) {
    makeSharedScene(situation);
    std::at_quick_exit([] {
        auto const handle = getNoStarveTaskExecutor()->submitTask(
            [] { return Executable::SUCCESS; }, concurrent::NORMAL, {}, "late");
        log::log(log::ERROR, "app", "%s", handle ? "accepted" : "refused");
    });
    say("ending");
    std::quick_exit(0);
}

int statusOf(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

void sayHowItEnded(int status) {
    say(WIFEXITED(status) ? "child exited with " + std::to_string(WEXITSTATUS(status))
                          : "child ended by signal " + std::to_string(WTERMSIG(status)));
}

// The child has no workers: what it submits stays queued.
void forkAndGoOn(std::string const& situation) {
    auto executor = makeExecutor();
    Scene scene(situation, executor);
    bool const wasIdle = executor->isIdle();
    pid_t const child = fork();
    if (child == 0) {
        alarm(deadlineSeconds());  // The parent's does not count here.
        auto const handle = executor->submitTask(
            [] {
                say("ran in the child");
                return Executable::SUCCESS;
            },
            concurrent::NORMAL, {}, "child");
        say(std::string("child: ") + (handle ? "accepted, " : "refused, ") +
            (executor->isIdle() ? "idle" : "not idle") + (wasIdle ? "" : " as before"));
        _exit(7);
    }
    sayHowItEnded(statusOf(child));
    Gate done;
    executor->submitTask(
        [] {
            say("ran in the parent");
            return Executable::SUCCESS;
        },
        concurrent::LOW, [&](std::shared_ptr<concurrent::Task> const&) { done.open(); }, "parent");
    scene.goOn();
    done.wait();
    say("ending");
    executor.reset();
    say("executor destroyed");
    sayOutcome(scene);
}

// exit() in the child runs the destructors of executors whose workers are not there.
void forkAndExit(std::string const& situation) {
    makeSharedScene(situation);
    pid_t const child = fork();
    if (child == 0) {
        alarm(deadlineSeconds());
        std::exit(7);
    }
    sayHowItEnded(statusOf(child));
    say("ending");
    std::exit(0);
}

// --- destructors of the application's statics

class Late {
public:
    ~Late() {
        if (atTheEnd) {
            atTheEnd();
        }
    }
    std::function<void()> atTheEnd;
};

// Made before any executor, and so destroyed after the shared ones were released.
Late late;

void staticLogs(std::string const& situation) {
    late.atTheEnd = [] { log::log(log::ERROR, "app", "still here"); };
    exitWhile(situation);
}

// Its reference keeps the executor running beyond the library's own.
void staticSubmits(std::string const& situation) {
    late.atTheEnd = [executor = getNoStarveTaskExecutor()]() mutable {
        Gate accepted;
        auto const handle = executor->submitTask(
            [&] {
                accepted.wait();
                say("late work ran");
                return Executable::SUCCESS;
            },
            concurrent::LOW, {}, "late");
        say(handle ? "accepted" : "refused");
        accepted.open();
        shared->goOn();
        handle->waitForCompletion();
        executor.reset();
        say("executor destroyed");
    };
    shared = new Scene(situation, getNoStarveTaskExecutor());
    shared->leaveWaiter();
    say("ending");
    std::exit(0);
}

// A weak reference shows that the executor is destroyed.
void staticLooksWeakly(std::string const& situation) {
    makeSharedScene(situation);
    std::weak_ptr<TaskExecutor> const weak = getNoStarveTaskExecutor();
    late.atTheEnd = [weak] { say(weak.expired() ? "executor expired" : "executor alive"); };
    say("ending");
    std::exit(0);
}

// --- work with a value

AsyncScene* sharedAsync = nullptr;

void makeSharedAsyncScene(std::string const& situation) {
    std::atexit([] {
        say("executor gone");
        say("future: " + sharedAsync->outcome());
    });
    sharedAsync = new AsyncScene(situation, getNoStarveTaskExecutor());
}

void asyncExit(std::string const& situation) {
    makeSharedAsyncScene(situation);
    say("ending");
    std::exit(0);
}

void asyncImmediateExit(std::string const& situation) {
    makeSharedAsyncScene(situation);
    say("ending");
    _exit(0);
}

void asyncQuickExit(std::string const& situation) {
    makeSharedAsyncScene(situation);
    std::at_quick_exit([] { say("future: " + sharedAsync->outcome()); });
    say("ending");
    std::quick_exit(0);
}

// The child has no worker that could run it, but may give it up.
void asyncFork(std::string const& situation) {
    auto const executor = makeExecutor();
    AsyncScene scene(situation, executor);
    pid_t const child = fork();
    if (child == 0) {
        alarm(deadlineSeconds());
        say("child: " + scene.outcome());
        scene.cancel();
        say("child: " + scene.outcome() + " after its cancel");
        _exit(7);
    }
    sayHowItEnded(statusOf(child));
    scene.goOn();
    say("future: " + scene.outcome(std::chrono::seconds(deadlineSeconds())));
}

void asyncForkAndExit(std::string const& situation) {
    makeSharedAsyncScene(situation);
    pid_t const child = fork();
    if (child == 0) {
        alarm(deadlineSeconds());
        std::exit(7);
    }
    sayHowItEnded(statusOf(child));
    say("ending");
    std::exit(0);
}

int run(int argc, char** argv) {
    alarm(deadlineSeconds());
    log::addLogHandler(log::STANDARD_STREAM_HANDLER, "standard streams");
    std::map<std::string, void (*)(std::string const&)> const ends = {
        {"destroyed", destroyed},
        {"own-worker", ownWorker},
        {"own-worker-of-two", ownWorkerOfTwo},
        {"exit", exitWhile},
        {"exit-by-worker", exitByWorker},
        {"_exit", immediateExit},
        {"quick_exit", quickExit},
        {"fork", forkAndGoOn},
        {"fork-exit", forkAndExit},
        {"static-logs", staticLogs},
        {"static-submits", staticSubmits},
        {"static-looks-weakly", staticLooksWeakly},
        {"async-exit", asyncExit},
        {"async-_exit", asyncImmediateExit},
        {"async-quick_exit", asyncQuickExit},
        {"async-fork", asyncFork},
        {"async-fork-exit", asyncForkAndExit},
    };
    auto const end = argc == 3 ? ends.find(argv[1]) : ends.end();
    if (end == ends.end()) {
        std::cerr << "Usage: " << argv[0] << " <end> <situation>\n";
        return 2;
    }
    end->second(argv[2]);
    return 0;
}

}  // namespace
}  // namespace ovra::test

int main(int argc, char** argv) {
    return ovra::test::run(argc, argv);
}
