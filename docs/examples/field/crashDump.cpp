// crashDump <file>: crashes, and leaves its last lines in the file.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <ovra/extra.h>
#include <ovra/log/Log.h>

namespace extra = ovra::extra;
namespace log = ovra::log;

namespace {

extra::RecentLinesLogHandler* recentLines = nullptr;
int crashFile = -1;

void onCrash(int signal) {
    recentLines->writeTo(crashFile);
    raise(
        signal);  // SA_RESETHAND: this time it ends the process, with a core dump if there is one.
}

// The thread that calls this can run out of stack, and the handler still runs.
void installCrashHandler(char const* path) {
    crashFile = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    static char stack[64 << 10];
    stack_t alternative = {};
    alternative.ss_sp = stack;
    alternative.ss_size = sizeof stack;
    sigaltstack(&alternative, nullptr);
    struct sigaction action = {};
    action.sa_handler = onCrash;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND | SA_NODEFER);
    for (int const signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        sigaction(signal, &action, nullptr);
    }
}

// Each level takes some stack, so this exhausts it.
int depth(int level) {
    int volatile here[1000] = {level};
    return level < 0 ? 0 : depth(here[0] + 1) + here[0];
}

}  // namespace

int main(int, char** arguments) {
    // Never released: a crash can come after `main`, too.
    auto const& sink = *new auto(std::make_shared<extra::RecentLinesLogHandler>(100));
    recentLines = sink.get();
    log::addLogHandler(sink, "recent");
    log::setLogLevel(log::VERBOSE);  // Costs memory only, and no disk.
    installCrashHandler(arguments[1]);

    for (int step = 1; step <= 150; ++step) {
        log::log(log::DEBUG, "worker", "Step %d.", step);
    }
    return depth(0);
}
