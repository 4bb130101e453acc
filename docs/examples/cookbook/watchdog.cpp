// Keeps systemd's watchdog content for as long as the executor serves its tasks.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <ovra/concurrent/TaskExecutors.h>

using namespace ovra::concurrent;

namespace {

// What sd_notify() of libsystemd does. Without systemd there is no socket, and nothing happens.
void notify(std::string const& message) {
    char const* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || std::strlen(path) >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path);
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    int const socketHandle = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    auto const length = offsetof(sockaddr_un, sun_path) + std::strlen(path);
    sendto(socketHandle, message.data(), message.size(), MSG_NOSIGNAL,
           reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length));
    close(socketHandle);
}

}  // namespace

int main() {
    char const* const limit = std::getenv("WATCHDOG_USEC");
    auto const interval =
        std::chrono::microseconds(limit == nullptr ? 1000000 : std::atoi(limit) / 2);
    auto const executor = getHighestPriorityTaskExecutor();
    notify("READY=1");
    for (;;) {
        // A task gives the sign: a worker that hangs gives none, and systemd restarts the service.
        executor->submitTask(
            [] {
                notify("WATCHDOG=1");
                return Executable::SUCCESS;
            },
            HIGHEST, nullptr, "watchdog");
        std::this_thread::sleep_for(interval);
    }
}
