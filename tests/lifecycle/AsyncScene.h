#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include <ovra/extra/SubmitAsync.h>
#include <tests/lifecycle/Scene.h>

namespace ovra::test {

/// Work with a value in an executor with one worker:
///
///     queued   it waits behind a task that runs
///     running  it runs
///
/// What runs goes on until the executor is being destroyed, or `goOn()` is called.
class AsyncScene {
public:
    AsyncScene(std::string const& situation,
               std::weak_ptr<concurrent::TaskExecutor> const& onExecutor)
        : executor(onExecutor) {
        auto const live = executor.lock();
        if (situation == "queued") {
            live->submitTask(
                [this] {
                    run();
                    return concurrent::Executable::SUCCESS;
                },
                concurrent::HIGH, {}, "before");
        }
        async = extra::submitAsync(*live, [this, isFirst = situation == "running"] {
            if (isFirst) {
                run();
            }
            say("work ended");
            return 7;
        });
        busy.wait();
    }

    void goOn() { toldToGoOn.open(); }
    void cancel() { async.cancel(); }
    /// "pending", the value, or "broken"; the last two once.
    std::string outcome(std::chrono::seconds limit = std::chrono::seconds(0)) {
        if (async.future.wait_for(limit) != std::future_status::ready) {
            return "pending";
        }
        try {
            return std::to_string(async.future.get());
        } catch (std::future_error const&) {
            return "broken";
        }
    }

private:
    void run() {
        busy.open();
        yieldUntilTrue([this] { return executor.expired() || toldToGoOn.isOpen(); });
    }

    std::weak_ptr<concurrent::TaskExecutor> const executor;
    extra::Async<int> async;
    Gate busy;
    Gate toldToGoOn;
};

}  // namespace ovra::test
