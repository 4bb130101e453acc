#include <tests/examples/Process.h>

#include <fcntl.h>
#include <linux/securebits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace ovra::test {

namespace {

void require(bool succeeded, char const* what) {
    if (!succeeded) {
        throw std::runtime_error(what);
    }
}

std::pair<int, int> makePipe() {
    int ends[2] = {-1, -1};
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    return {ends[0], ends[1]};
}

// The end that shows the terminal, and the end that is one.
std::pair<int, int> makeTerminal() {
    int const screen = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[64];
    require(screen != -1 && grantpt(screen) == 0 && unlockpt(screen) == 0 &&
                ptsname_r(screen, name, sizeof name) == 0,
            "terminal");
    int const terminal = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    require(terminal != -1, "terminal");
    return {screen, terminal};
}

void limit(__rlimit_resource_t resource, unsigned long value) {
    struct rlimit const limits = {value, value};
    setrlimit(resource, &limits);
}

// In the child. Does not return.
[[noreturn]] void become(Command const& command, int in, int out, int err) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, command.interruptIgnored ? SIG_IGN : SIG_DFL);
    if (!command.outputFile.empty()) {
        out = open(command.outputFile.c_str(), O_WRONLY | O_CREAT, 0666);
    }
    if (!command.errorFile.empty()) {
        err = open(command.errorFile.c_str(), O_WRONLY | O_CREAT, 0666);
    }
    bool ready = out != -1 && err != -1 && dup2(in, 0) != -1 && dup2(out, 1) != -1 &&
                 dup2(err, 2) != -1 && setenv("LC_ALL", command.locale.c_str(), 1) == 0 &&
                 setenv("TERM", command.terminal.c_str(), 1) == 0 &&
                 (command.noColour ? setenv("NO_COLOR", "1", 1) : unsetenv("NO_COLOR")) == 0 &&
                 (command.directory.empty() || chdir(command.directory.c_str()) == 0);
    for (auto const& [name, value] : command.environment) {
        ready = ready && setenv(name.c_str(), value.c_str(), 1) == 0;
    }
    if (command.unprivileged && geteuid() == 0) {
        ready = ready && prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED) == 0;
    }
    if (command.descriptors != 0) {
        limit(RLIMIT_NOFILE, command.descriptors);
    }
    if (command.memoryBytes != 0) {
        limit(RLIMIT_AS, command.memoryBytes);
    }
    if (command.fileBytes != 0) {
        signal(SIGXFSZ, SIG_IGN);
        limit(RLIMIT_FSIZE, command.fileBytes);
    }
    std::vector<char*> arguments;
    for (auto const& argument : command.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    if (ready) {
        execvp(arguments[0], arguments.data());
    }
    _exit(127);
}

}  // namespace

Process::Process(Command const& command) {
    auto const [inRead, inWrite] = makePipe();
    auto const [outRead, outWrite] = makePipe();
    auto const [errRead, errWrite] = command.onTerminal ? makeTerminal() : makePipe();
    require(write(inWrite, command.input.data(), command.input.size()) ==
                static_cast<ssize_t>(command.input.size()),
            "standard input");
    child = fork();
    require(child != -1, "fork");
    if (child == 0) {
        become(command, inRead, outWrite, errWrite);
    }
    close(inRead);
    close(inWrite);
    close(outWrite);
    close(errWrite);
    out = outRead;
    err = errRead;
}

Process::~Process() {
    if (child != -1) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    for (int const descriptor : {out, err}) {
        if (descriptor != -1) {
            close(descriptor);
        }
    }
}

bool Process::waitForError(std::string const& text) {
    return waitFor(outcome.err, text);
}

bool Process::waitForOutput(std::string const& text) {
    return waitFor(outcome.out, text);
}

pid_t Process::id() const {
    return child;
}

void Process::send(int signal) const {
    kill(child, signal);
}

void Process::alsoDrain(int descriptor) {
    drained = descriptor;
}

Outcome Process::finish() {
    while (readSome()) {
    }
    int status = 0;
    rusage used = {};
    require(wait4(child, &status, 0, &used) == child, "wait4");
    outcome.peakKilobytes = used.ru_maxrss;
    child = -1;
    outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return outcome;
}

bool Process::waitFor(std::string const& stream, std::string const& text) {
    while (stream.find(text) == std::string::npos) {
        if (!readSome()) {
            return false;
        }
    }
    return true;
}

// False once both outputs have ended.
bool Process::readSome() {
    if (out == -1 && err == -1) {
        return false;
    }
    struct pollfd polled[] = {{out, POLLIN, 0}, {err, POLLIN, 0}, {drained, POLLIN, 0}};
    require(poll(polled, 3, -1) > 0, "poll");
    char chunk[4096];
    if (polled[2].revents != 0) {
        require(read(drained, chunk, sizeof chunk) > 0, "read");
    }
    for (auto* const source : {&out, &err}) {
        if (*source == -1 || polled[source == &out ? 0 : 1].revents == 0) {
            continue;
        }
        ssize_t const size = read(*source, chunk, sizeof chunk);
        if (size > 0) {
            (source == &out ? outcome.out : outcome.err).append(chunk, static_cast<size_t>(size));
        } else {
            close(*source);  // Its end; a terminal reports that as an error.
            *source = -1;
        }
    }
    return true;
}

bool hasTerminals() {
    try {
        auto const [screen, terminal] = makeTerminal();
        close(terminal);
        close(screen);
        return true;
    } catch (std::runtime_error const&) {
        return false;
    }
}

Outcome run(Command const& command) {
    return Process(command).finish();
}

}  // namespace ovra::test
