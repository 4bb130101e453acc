#include "Interrupt.h"

#include <utility>

namespace manifest {

Interrupt::Interrupt() {
    sigemptyset(&signals);
    struct sigaction current = {};
    sigaction(SIGINT, nullptr, &current);
    if (current.sa_handler == SIG_IGN) {
        return;
    }
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, &previousMask);
    listener = std::thread(&Interrupt::listen, this);
}

Interrupt::~Interrupt() {
    if (listener.joinable()) {
        stopping = true;
        pthread_kill(listener.native_handle(), SIGINT);
        listener.join();
        pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    }
}

bool Interrupt::requested() const {
    return wasRequested;
}

void Interrupt::onRequest(std::function<void()> newAction) {
    std::lock_guard<std::mutex> const lock(mutex);
    action = std::move(newAction);
    if (action && wasRequested) {
        action();
    }
}

void Interrupt::request() {
    std::lock_guard<std::mutex> const lock(mutex);
    wasRequested = true;
    if (action) {
        action();
    }
}

void Interrupt::listen() {
    int received = 0;
    while (sigwait(&signals, &received) == 0 && !stopping) {
        if (wasRequested) {
            signal(SIGINT, SIG_DFL);
            pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
            raise(SIGINT);
        }
        request();
    }
}

}  // namespace manifest
