#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <ovra/log/Log.h>

namespace ovra::test {

struct LogLine {
    std::string text;
    log::LogLevel level;

    friend bool operator==(LogLine const& left, LogLine const& right) {
        return left.text == right.text && left.level == right.level;
    }
    friend void PrintTo(LogLine const& line, std::ostream* out) {
        *out << line.text << " at level " << line.level;
    }
};

/// While it lives, sets the global level and keeps what is logged; then the level is `ERROR` again.
///
/// Make it before the threads whose lines it is to keep, and let it outlive them.
class LogRecorder {
public:
    explicit LogRecorder(log::LogLevel level = log::VERBOSE) {
        static std::shared_ptr<Sink> const sink = [] {
            auto made = std::make_shared<Sink>();
            log::addLogHandler(made, "recorder");
            return made;
        }();
        sink->recorder = this;
        log::setLogLevel(level);
        registered = sink;
    }
    LogRecorder(LogRecorder const&) = delete;
    LogRecorder& operator=(LogRecorder const&) = delete;
    ~LogRecorder() {
        log::setLogLevel(log::ERROR);
        registered->recorder = nullptr;
    }

    /// Calls `newHook` on the logging thread, with no lock held, after each line it has kept.
    void onLine(std::function<void(LogLine const&)> newHook) { hook = std::move(newHook); }

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> const lock(mutex);
        return kept;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (auto const& line : lines()) {
            result.push_back(line.text);
        }
        return result;
    }
    int count(std::string const& text) const {
        auto const all = texts();
        return static_cast<int>(std::count(all.begin(), all.end(), text));
    }
    /// Waits until `text` has been logged `times` times.
    void waitFor(std::string const& text, int times = 1) {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [&] {
            return std::count_if(kept.begin(), kept.end(),
                                 [&](LogLine const& line) { return line.text == text; }) >= times;
        });
    }

private:
    class Sink : public log::LogHandler {
    public:
        void handleLogMessage(char const* line, log::LogLevel level) override {
            if (auto* const current = recorder.load()) {
                current->keep({line, level});
            }
        }
        std::atomic<LogRecorder*> recorder{nullptr};
    };

    void keep(LogLine const& line) {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            kept.push_back(line);
            condition.notify_all();
        }
        if (hook) {
            hook(line);
        }
    }

    std::shared_ptr<Sink> registered;
    std::function<void(LogLine const&)> hook;
    mutable std::mutex mutex;
    std::condition_variable condition;
    std::vector<LogLine> kept;
};

}  // namespace ovra::test
