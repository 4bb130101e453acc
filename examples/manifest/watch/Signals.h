#pragma once

#include <signal.h>

#include <chrono>
#include <optional>

namespace manifest {

/// The signals that control `ovra-manifest watch`, taken one by one in place of handlers: what they
/// ask for may take locks. Make it before any other thread, so that all threads block them.
class Signals {
public:
    Signals();
    Signals(Signals const&) = delete;
    Signals& operator=(Signals const&) = delete;

    /// Waits for the next one; nothing if none came in time. A limit of 0 or less: only looks.
    std::optional<int> next(std::chrono::nanoseconds limit) const;

private:
    sigset_t set = {};
};

}  // namespace manifest
