#include "Notify.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace manifest {

namespace {

std::string variable(char const* name) {
    char const* const value =
        std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing changes it.
    return value == nullptr ? "" : value;
}

}  // namespace

Notify::Notify() {
    std::string const path = variable("NOTIFY_SOCKET");
    if (path.size() < 2 || path.size() >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') {
        address.sun_path[0] = '\0';  // A name that is in no directory.
    }
    addressBytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    socketHandle = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

Notify::~Notify() {
    if (socketHandle != -1) {
        close(socketHandle);
    }
}

bool Notify::send(std::string const& message) const {
    return socketHandle == -1 ||
           sendto(socketHandle, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<sockaddr const*>(&address), addressBytes) != -1 ||
           errno != EAGAIN;
}

std::chrono::milliseconds Notify::watchdogInterval() {
    std::string const process = variable("WATCHDOG_PID");
    if (!process.empty() && process != std::to_string(getpid())) {
        return std::chrono::milliseconds(0);
    }
    unsigned long long const microseconds =
        std::strtoull(variable("WATCHDOG_USEC").c_str(), nullptr, 10);
    return std::chrono::milliseconds(microseconds > 0 ? microseconds / 2000 + 1 : 0);
}

}  // namespace manifest
