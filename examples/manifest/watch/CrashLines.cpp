#include "CrashLines.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

namespace manifest {

namespace {

// Never destroyed: a crash may come as late as the end of the process.
struct Crash {
    std::shared_ptr<ovra::extra::RecentLinesLogHandler> lines;
    std::string path;
};
Crash* crash = nullptr;

void onCrash(int signal) {
    crash->lines->writeTo(STDERR_FILENO);
    if (!crash->path.empty()) {
        int const file =
            open(crash->path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0640);
        crash->lines->writeTo(file);
        close(file);
    }
    raise(signal);  // SA_RESETHAND: this time it ends the process.
}

}  // namespace

void leaveLinesOnCrash(std::shared_ptr<ovra::extra::RecentLinesLogHandler> lines,
                       std::string const& path) {
    crash = new Crash{std::move(lines), path};
    // For the main thread: it can run out of stack, and the handler still runs.
    static char stack[16 << 10];
    stack_t alternative = {};
    alternative.ss_sp = stack;
    alternative.ss_size = sizeof stack;
    sigaltstack(&alternative, nullptr);
    struct sigaction action = {};
    action.sa_handler = onCrash;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND | SA_NODEFER);
    for (int const number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        sigaction(number, &action, nullptr);
    }
}

}  // namespace manifest
