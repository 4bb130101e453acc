// Reads its configuration again on SIGHUP, and ends on SIGTERM, without a signal handler.

#include <signal.h>
#include <unistd.h>

#include <iostream>

#include <ovra/concurrent/TaskExecutors.h>

using namespace ovra::concurrent;

int main() {
    // Before the first other thread starts, so that every thread inherits the blocked signals.
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGHUP);
    sigaddset(&awaited, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &awaited, nullptr);

    auto const executor = getNoStarveTaskExecutor();
    kill(getpid(), SIGHUP);   // An administrator would do this...
    kill(getpid(), SIGTERM);  // ...and systemd this.

    for (int signal = 0; sigwait(&awaited, &signal) == 0 && signal != SIGTERM;) {
        auto const handle = executor->submitTask(
            [] {
                std::cout << "configuration read\n";
                return Executable::SUCCESS;
            },
            HIGH, nullptr, "configuration");
        handle->waitForCompletion();
    }
    std::cout << "ending\n";
}
