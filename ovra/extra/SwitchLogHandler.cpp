#include <ovra/extra/SwitchLogHandler.h>

#include <atomic>
#include <mutex>
#include <utility>

#include <ovra/extra/internal/ForkSafeLock.h>
#include <ovra/extra/internal/KeptErrno.h>

namespace ovra::extra {

class SwitchLogHandler::State {
public:
    State(std::shared_ptr<log::LogHandler> first, log::LogLevel most) : level(most) {
        targets[0] = std::move(first);
    }

    std::shared_ptr<log::LogHandler> target() {
        std::lock_guard<ForkSafeLock> const guard(lock);
        return targets[current.load(std::memory_order_relaxed)];
    }

    // At every moment `current` says which target is whole: the process may be forked here. The
    // replaced target leaves through the result, or through `next`, and so is destroyed without the
    // lock.
    std::shared_ptr<log::LogHandler> exchange(std::shared_ptr<log::LogHandler> next) {
        std::lock_guard<ForkSafeLock> const guard(lock);
        unsigned int const before = current.load(std::memory_order_relaxed);
        targets[1 - before].swap(next);
        current.store(1 - before, std::memory_order_release);
        return std::move(targets[before]);
    }

    std::atomic<log::LogLevel> level;

private:
    ForkSafeLock lock;
    std::shared_ptr<log::LogHandler> targets[2];  // Both are set only during an exchange.
    std::atomic<unsigned int> current{0};
};

SwitchLogHandler::SwitchLogHandler(std::shared_ptr<log::LogHandler> target, log::LogLevel level)
    : state([&] {
          KeptErrno const keptErrno;
          return std::make_unique<State>(std::move(target), level);
      }()) {}

SwitchLogHandler::~SwitchLogHandler() {
    KeptErrno const keptErrno;
    state.reset();
}

void SwitchLogHandler::handleLogMessage(char const* line, log::LogLevel level) {
    if (level > log::DISABLED && level > getLevel()) {
        return;
    }
    if (auto const target = state->target()) {
        target->handleLogMessage(line, level);
    }
}

std::shared_ptr<log::LogHandler> SwitchLogHandler::exchange(
    std::shared_ptr<log::LogHandler> target) {
    return state->exchange(std::move(target));
}

void SwitchLogHandler::setLevel(log::LogLevel level) {
    state->level.store(level, std::memory_order_relaxed);
}

log::LogLevel SwitchLogHandler::getLevel() const {
    return state->level.load(std::memory_order_relaxed);
}

}  // namespace ovra::extra
