#pragma once

#include <condition_variable>
#include <mutex>

namespace ovra::bench {

/// Holds the workers that arrive at it until it is opened.
class Gate {
public:
    void pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++arrived;
        arrival.notify_one();
        opening.wait(lock, [this] { return isOpen; });
    }
    void awaitArrivals(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        arrival.wait(lock, [&] { return arrived >= count; });
    }
    void open() {
        std::lock_guard<std::mutex> const lock(mutex);
        isOpen = true;
        opening.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable arrival;
    std::condition_variable opening;
    int arrived = 0;
    bool isOpen = false;
};

}  // namespace ovra::bench
