#pragma once

#include <ovra/extra/internal/Clock.h>
#include <tests/support/Gate.h>

namespace ovra::extra::test {

/// A clock that a test sets, for one thread that waits by it. Begins at 1000 ms.
class ManualClock : public Clock {
public:
    ManualClock() = default;
    ManualClock(ManualClock const&) = delete;
    ManualClock& operator=(ManualClock const&) = delete;
    virtual ~ManualClock() = default;

    static Time at(std::int64_t ms) { return Time(std::chrono::milliseconds(ms)); }

    Time now() const override {
        std::lock_guard<std::mutex> const guard(mutex);
        return time;
    }

    void wait(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
              Time end) override {
        {
            std::lock_guard<std::mutex> const guard(mutex);
            if (end <= time) {
                return;
            }
            waitersMutex = lock.mutex();
            waitersCondition = &condition;
            ++waits;
            isWaiting = true;
            waitsFor = end;
            changed.notify_all();
        }
        condition.wait(lock);
        std::lock_guard<std::mutex> const guard(mutex);
        isWaiting = false;
        waitersMutex = nullptr;
    }

    void set(std::int64_t ms) {
        std::mutex* waiters = nullptr;
        {
            std::lock_guard<std::mutex> const guard(mutex);
            time = at(ms);
            if (isWaiting && waitsFor > time) {
                return;
            }
            waiters = waitersMutex;
        }
        if (waiters != nullptr) {
            std::lock_guard<std::mutex> const lock(*waiters);
            waitersCondition->notify_all();
        }
    }

    /// Waits until the thread waits for that time.
    void awaitWaitFor(Time end) {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait(guard, [&] { return isWaiting && waitsFor == end; });
    }
    /// How often the thread has begun to wait.
    int waitsSoFar() const {
        std::lock_guard<std::mutex> const guard(mutex);
        return waits;
    }

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    Time time = at(1000);
    std::mutex* waitersMutex = nullptr;
    std::condition_variable* waitersCondition = nullptr;
    bool isWaiting = false;
    Time waitsFor{};
    int waits = 0;
};

}  // namespace ovra::extra::test
