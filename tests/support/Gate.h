#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

namespace ovra::test {

/// Opens once `count` arrivals have been made, by default one, and stays open. Waiting has no time
/// limit of its own: the suite's watchdog bounds it.
class Gate {
public:
    explicit Gate(int count = 1) : missing(count) {}
    Gate(Gate const&) = delete;
    Gate& operator=(Gate const&) = delete;

    void open() {
        std::lock_guard<std::mutex> const lock(mutex);
        if (--missing <= 0) {
            condition.notify_all();
        }
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return missing <= 0; });
    }
    bool isOpen() {
        std::lock_guard<std::mutex> const lock(mutex);
        return missing <= 0;
    }

private:
    std::mutex mutex;
    std::condition_variable condition;
    int missing;
};

/// Calls `action` when it is destroyed. Captured by work, it shows when the work is released.
template <typename Action>
class AtEnd {
public:
    explicit AtEnd(Action atEnd) : action(std::move(atEnd)) {}
    AtEnd(AtEnd const&) = delete;
    AtEnd& operator=(AtEnd const&) = delete;
    ~AtEnd() { action(); }

private:
    Action action;
};

template <typename Action>
std::shared_ptr<AtEnd<Action>> atEnd(Action action) {
    return std::make_shared<AtEnd<Action>>(std::move(action));
}

}  // namespace ovra::test
