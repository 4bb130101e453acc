#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace manifest {

/// Turns Ctrl-C into a flag and a call, on a thread of its own that waits for the signal: no signal
/// handler runs, so the action may take locks.
///
/// Make it before any other thread, so that all threads inherit the blocked signal. A second Ctrl-C
/// ends the process at once. Where the signal is ignored from the start, as for a background job,
/// it stays so.
class Interrupt {
public:
    Interrupt();
    Interrupt(Interrupt const&) = delete;
    Interrupt& operator=(Interrupt const&) = delete;
    ~Interrupt();

    /// Whether Ctrl-C has been pressed. From any thread.
    bool requested() const;

    /// From now on the first Ctrl-C calls `action`; if there has been one, it is called here. An
    /// empty `action` removes the previous one, and waits for it if it is running.
    void onRequest(std::function<void()> newAction);

    /// As if Ctrl-C had been pressed.
    void request();

private:
    void listen();

    sigset_t signals = {};
    sigset_t previousMask = {};
    std::atomic<bool> wasRequested{false};
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::function<void()> action;  // Guarded by `mutex`, also while it runs.
    std::thread listener;
};

}  // namespace manifest
