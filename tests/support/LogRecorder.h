#pragma once

#include <algorithm>
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
/// Make it before the threads whose lines it is to keep. Its destructor waits for the lines that
/// are just being kept.
class LogRecorder {
public:
    explicit LogRecorder(log::LogLevel level = log::VERBOSE) {
        sink().setRecorder(this);
        log::setLogLevel(level);
    }
    LogRecorder(LogRecorder const&) = delete;
    LogRecorder& operator=(LogRecorder const&) = delete;
    ~LogRecorder() {
        log::setLogLevel(log::ERROR);
        sink().setRecorder(nullptr);
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
            LogRecorder* current = nullptr;
            {
                std::lock_guard<std::mutex> const lock(mutex);
                current = recorder;
                ++callers;
            }
            if (current != nullptr) {
                current->keep({line, level});
            }
            std::lock_guard<std::mutex> const lock(mutex);
            --callers;
            condition.notify_all();
        }
        void setRecorder(LogRecorder* newRecorder) {
            std::unique_lock<std::mutex> lock(mutex);
            recorder = newRecorder;
            condition.wait(lock, [this] { return callers == 0; });
        }

    private:
        std::mutex mutex;
        std::condition_variable condition;
        LogRecorder* recorder = nullptr;
        int callers = 0;
    };

    static Sink& sink() {
        static std::shared_ptr<Sink> const registered = [] {
            auto made = std::make_shared<Sink>();
            log::addLogHandler(made, "recorder");
            return made;
        }();
        return *registered;
    }

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

    std::function<void(LogLine const&)> hook;
    mutable std::mutex mutex;
    std::condition_variable condition;
    std::vector<LogLine> kept;
};

}  // namespace ovra::test
