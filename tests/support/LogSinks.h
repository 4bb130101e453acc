#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <ovra/log/Log.h>

namespace ovra::test {

struct LogLine {
    std::string text;
    log::LogLevel level;
    char const* address = nullptr;  ///< Where the sink saw it; not compared.

    friend bool operator==(LogLine const& left, LogLine const& right) {
        return left.text == right.text && left.level == right.level;
    }
    friend void PrintTo(LogLine const& line, std::ostream* out) {
        *out << line.text << " at level " << line.level;
    }
};

/// Keeps every line that reaches it.
class RecordingSink : public log::LogHandler {
public:
    void handleLogMessage(char const* text, log::LogLevel level) override {
        LogLine const line{text, level, text};
        {
            std::lock_guard<std::mutex> const lock(mutex);
            kept.push_back(line);
            condition.notify_all();
        }
        if (hook) {
            hook(line);
        }
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
    std::function<void(LogLine const&)> hook;
    mutable std::mutex mutex;
    std::condition_variable condition;
    std::vector<LogLine> kept;
};

/// Counts the lines that reach it.
class CountingSink : public log::LogHandler {
public:
    void handleLogMessage(char const*, log::LogLevel) override { ++lines; }

    std::atomic<int> lines{0};
};

/// A sink of the test's own, whatever it does with a line.
class FunctionSink : public log::LogHandler {
public:
    explicit FunctionSink(std::function<void(char const*, log::LogLevel)> work)
        : function(std::move(work)) {}

    void handleLogMessage(char const* line, log::LogLevel level) override { function(line, level); }

private:
    std::function<void(char const*, log::LogLevel)> function;
};

/// Puts the global level back to what it was.
class LevelKeeper {
public:
    LevelKeeper() = default;
    explicit LevelKeeper(log::LogLevel level) { log::setLogLevel(level); }
    LevelKeeper(LevelKeeper const&) = delete;
    LevelKeeper& operator=(LevelKeeper const&) = delete;
    ~LevelKeeper() { log::setLogLevel(kept); }

private:
    log::LogLevel const kept = log::getLogLevel();
};

/// A name in the registry, whose sink does nothing once this is destroyed: an entry cannot be
/// removed, only replaced.
class Registration {
public:
    explicit Registration(std::string name = uniqueName()) : registeredName(std::move(name)) {}
    explicit Registration(std::shared_ptr<log::LogHandler> handler) : Registration() {
        log::addLogHandler(std::move(handler), name());
    }
    explicit Registration(log::LogHandlerType type) : Registration() {
        log::addLogHandler(type, name());
    }
    Registration(Registration const&) = delete;
    Registration& operator=(Registration const&) = delete;
    ~Registration() {
        log::addLogHandler(std::make_shared<FunctionSink>([](char const*, log::LogLevel) {}),
                           name());
    }

    char const* name() const { return registeredName.c_str(); }

private:
    static std::string uniqueName() {
        static int count = 0;
        return "sink " + std::to_string(++count);
    }

    std::string const registeredName;
};

}  // namespace ovra::test
