#pragma once

#include <ovra/concurrent/internal/TaskEnd.h>
#include <ovra/log/Log.h>

#include "Scenarios.h"

// The end of a task by itself, and the log's settings.

namespace scenarios {

struct EndAgainstWait {
    void run(unsigned int thread) {
        if (thread == 0) {
            before = 1;
            end.fulfil();
        } else {
            await();
            expect(before == 1, "the wait ends after what came before the end");
        }
    }
    void check() {}
    virtual void await() { end.wait(); }
    virtual ~EndAgainstWait() = default;

    TaskEnd end;
    model::plain<int> before{0};
};

struct EndAgainstFuture : EndAgainstWait {
    void await() override { expect(end.future().get(), "the future says true"); }
};

/// Of two who wait, one is refused; of two ends, the second.
struct EndTwice {
    void run(unsigned int thread) {
        try {
            thread == 0 ? end.fulfil() : end.wait();
        } catch (std::future_error const&) {
            expect(thread != 0, "the end comes once");
            refused[thread] = true;
        }
    }
    void check() {
        expect(refused[1] != refused[2], "one of two is refused");
        try {
            end.fulfil();
            expect(false, "the second end is refused");
        } catch (std::future_error const&) {
        }
    }

    TaskEnd end;
    bool refused[3] = {};
};

struct LogLevel {
    void run(unsigned int thread) {
        if (thread == 0) {
            ovra::log::setLogLevel(ovra::log::WARNING);
            ovra::log::setDepsDebuggable(true);
        } else {
            ovra::log::LogLevel const level = ovra::log::getLogLevel();
            expect(level == ovra::log::ERROR || level == ovra::log::WARNING, "old level or new");
            ovra::log::log(ovra::log::WARNING, "tag", "message");
            static_cast<void>(ovra::log::getDepsDebuggable());
        }
    }
    void check() {
        expect(ovra::log::getLogLevel() == ovra::log::WARNING, "the level is kept");
        expect(ovra::log::getDepsDebuggable(), "the flag is kept");
    }
};

}  // namespace scenarios
