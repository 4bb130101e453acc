#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <benchmarks/log/LogBenchmarks.h>

namespace ovra::bench {

namespace {

// Gives this process a /dev of its own, with a system log in it and a child that reads it.
bool drainSystemLog() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
        return false;
    }
    mkdir("/dev/shm", 0777);
    int const systemLog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (systemLog < 0 ||
        bind(systemLog, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return false;
    }
    pid_t const parent = getpid();
    pid_t const reader = fork();
    if (reader == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(0);  // The parent ended before this child could watch it.
        }
        char line[4096];
        while (recv(systemLog, line, sizeof line, 0) >= 0) {
        }
        _exit(1);
    }
    close(systemLog);
    return reader > 0;
}

}  // namespace

bool isSystemLogDrained() {
    // Asked before any thread exists, while benchmarks register themselves.
    static bool const isDrained = drainSystemLog();
    return isDrained;
}

}  // namespace ovra::bench
