#pragma once

#include <tests/support/Gate.h>

namespace ovra::test {

/// What a plug-in that brings the library along offers to its application, which is not linked with
/// it.
struct Plugin {
    /// Puts the shared executor into a situation, as `Scene` does; the work goes on until that
    /// executor is being destroyed. Each event is reported, from whichever thread.
    void (*begin)(char const* situation, Gate* waiterIsOut, void (*report)(char const* event));
    /// Takes what `begin` submitted last, opens the gate, waits and releases it.
    void (*wait)(Gate* isTaken);
    /// Whether that task is held by somebody beside the queue or the worker.
    bool (*isAwaited)();
    /// Runs a task and returns once it is done.
    void (*runOne)();
    void (*setLogLevel)(int level);
    int (*getLogLevel)();
    void const* (*sharedExecutor)();
};

}  // namespace ovra::test
