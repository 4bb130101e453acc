#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <string>

namespace manifest {

/// The socket on which a service says how it is (sd_notify(3)): to systemd, or to whoever has set
/// NOTIFY_SOCKET. Without it, nothing is sent. Thread-safe, and never blocks.
class Notify {
public:
    Notify();
    Notify(Notify const&) = delete;
    Notify& operator=(Notify const&) = delete;
    ~Notify();

    /// Such as "READY=1". False, and dropped, where the socket takes no more for now.
    bool send(std::string const& message) const;

    /// How often "WATCHDOG=1" is to be sent: twice in the time after which the service is taken for
    /// dead. 0: never.
    static std::chrono::milliseconds watchdogInterval();

private:
    sockaddr_un address = {};
    socklen_t addressBytes = 0;
    int socketHandle = -1;
};

}  // namespace manifest
