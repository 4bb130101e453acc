#pragma once

#include <string>

#include <ovra/extra/RecentLinesLogHandler.h>
#include <ovra/extra/SwitchLogHandler.h>

#include "Scenarios.h"

// The sinks of the second library that work with atomics of their own.

namespace scenarios {

/// A target that remembers whether it was used, and may not be used once it is destroyed.
struct Target : ovra::log::LogHandler {
    explicit Target(model::atomic<int>& count) : lines(count) {}
    ~Target() override { isHere = false; }
    void handleLogMessage(char const*, ovra::log::LogLevel) override {
        expect(isHere, "the target is there");
        lines.fetch_add(1, std::memory_order_relaxed);
    }

    model::atomic<int>& lines;
    model::plain<bool> isHere{true};
};

/// A line while the target is replaced.
struct SwitchOfTarget {
    void run(unsigned int thread) {
        if (thread == 0) {
            sink.exchange(model::make_shared<Target>(lines));
            sink.setLevel(ovra::log::ERROR);
        } else {
            sink.handleLogMessage("line", ovra::log::ERROR);
        }
    }
    void check() { expect(lines == 1, "the line went to one target"); }

    model::atomic<int> lines{0};
    ovra::extra::SwitchLogHandler sink{model::make_shared<Target>(lines)};
};

/// Three who want the lock: those who sleep are woken.
struct SwitchAwaited {
    void run(unsigned int thread) {
        if (thread == 0) {
            sink.exchange(model::make_shared<Target>(lines));
        } else {
            sink.handleLogMessage("line", ovra::log::ERROR);
        }
    }
    void check() { expect(lines == 2, "both lines went to one target each"); }

    model::atomic<int> lines{0};
    ovra::extra::SwitchLogHandler sink{model::make_shared<Target>(lines)};
};

/// A line that takes the place of another, while that is written out.
struct RingOfOne {
    void run(unsigned int thread) {
        if (thread == 0) {
            ring.handleLogMessage("aa", ovra::log::ERROR);
            ring.handleLogMessage("b", ovra::log::ERROR);
        } else {
            ring.writeTo(0);
            std::string const& text = model::written();
            expect(text.empty() || text == "aa\n" || text == "b\n", "a line is shown whole");
        }
    }
    void check() {
        model::written().clear();
        ring.writeTo(0);
        std::string const& text = model::written();
        // Empty: the second line was dropped, as the first was just written out.
        expect(text.empty() || text == "b\n", "the last line is kept");
    }

    ovra::extra::RecentLinesLogHandler ring{1, 8};
};

/// Two who log, and one who writes out.
struct RingOfTwo {
    void run(unsigned int thread) {
        if (thread == 2) {
            ring.writeTo(0);
            std::string const& text = model::written();
            expect(text.empty() || text == "aa\n" || text == "b\n" || text == "aa\nb\n" ||
                       text == "b\naa\n" || text == "b\nb\n",
                   "lines are shown whole");
        } else {
            ring.handleLogMessage(thread == 0 ? "aa" : "b", ovra::log::ERROR);
            if (thread == 1) {
                ring.handleLogMessage("b", ovra::log::ERROR);
            }
        }
    }
    void check() {}

    ovra::extra::RecentLinesLogHandler ring{2, 8};
};

/// A line that is held up, while as many others as there are places come past.
struct RingOfLate {
    void run(unsigned int thread) {
        if (thread == 0) {
            ring.handleLogMessage("aa", ovra::log::ERROR);
        } else {
            ring.handleLogMessage("b", ovra::log::ERROR);
            ring.handleLogMessage("cc", ovra::log::ERROR);
        }
    }
    void check() {
        model::written().clear();
        ring.writeTo(0);
        expect(model::written().find("cc\n") != std::string::npos, "the last line is kept");
    }

    ovra::extra::RecentLinesLogHandler ring{2, 8};
};

}  // namespace scenarios
