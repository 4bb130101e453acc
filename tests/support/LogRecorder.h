#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include <ovra/log/Log.h>
#include <tests/support/LogSinks.h>

namespace ovra::test {

/// While it lives, sets the global level and keeps what is logged; then the level is `ERROR` again.
///
/// Make it before the threads whose lines it is to keep. Its destructor waits for calls that are
/// still storing a line.
class LogRecorder : public RecordingSink {
public:
    explicit LogRecorder(log::LogLevel level = log::VERBOSE) {
        registered().passTo(this);
        log::setLogLevel(level);
    }
    LogRecorder(LogRecorder const&) = delete;
    LogRecorder& operator=(LogRecorder const&) = delete;
    ~LogRecorder() override {
        log::setLogLevel(log::ERROR);
        registered().passTo(nullptr);
    }

private:
    // Stays registered: the registry may not change while other threads log.
    class Switch : public log::LogHandler {
    public:
        void handleLogMessage(char const* line, log::LogLevel level) override {
            LogRecorder* current = nullptr;
            {
                std::lock_guard<std::mutex> const lock(mutex);
                current = recorder;
                ++callers;
            }
            if (current != nullptr) {
                current->handleLogMessage(line, level);
            }
            std::lock_guard<std::mutex> const lock(mutex);
            --callers;
            condition.notify_all();
        }
        void passTo(LogRecorder* newRecorder) {
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

    static Switch& registered() {
        static std::shared_ptr<Switch> const made = [] {
            auto sink = std::make_shared<Switch>();
            log::addLogHandler(sink, "recorder");
            return sink;
        }();
        return *made;
    }
};

}  // namespace ovra::test
