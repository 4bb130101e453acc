#include "Signals.h"

#include <algorithm>

namespace manifest {

Signals::Signals() {
    sigemptyset(&set);
    for (int const number : {SIGHUP, SIGUSR1, SIGUSR2, SIGTERM}) {
        sigaddset(&set, number);
    }
    struct sigaction interrupt = {};
    sigaction(SIGINT, nullptr, &interrupt);
    if (interrupt.sa_handler != SIG_IGN) {  // As for a background job: it stays so.
        sigaddset(&set, SIGINT);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::optional<int> Signals::next(std::chrono::nanoseconds limit) const {
    limit = std::max(limit, std::chrono::nanoseconds(0));
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
    timespec time = {};
    time.tv_sec = seconds.count();
    using Nanoseconds = std::chrono::duration<long, std::nano>;
    time.tv_nsec = std::chrono::duration_cast<Nanoseconds>(limit - seconds).count();
    int const number = sigtimedwait(&set, nullptr, &time);
    return number > 0 ? std::optional<int>(number) : std::nullopt;
}

}  // namespace manifest
