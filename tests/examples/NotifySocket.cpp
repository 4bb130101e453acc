#include <tests/examples/NotifySocket.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace ovra::test {

NotifySocket::NotifySocket(std::string const& path) : name(path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("the socket's name is too long");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (bind(descriptor, reinterpret_cast<sockaddr const*>(&address), length) != 0) {
        throw std::runtime_error("no socket");
    }
}

NotifySocket::~NotifySocket() {
    close(descriptor);
}

std::string const& NotifySocket::address() const {
    return name;
}

std::string NotifySocket::waitFor(std::string const& text) {
    for (;;) {
        char message[4096];
        ssize_t const size = recv(descriptor, message, sizeof message, 0);
        if (size < 0 && errno != EINTR) {
            throw std::runtime_error("the socket fails");
        }
        std::string result(message, static_cast<std::size_t>(size < 0 ? 0 : size));
        if (result.compare(0, text.size(), text) == 0) {
            return result;
        }
    }
}

void NotifySocket::fill() const {
    sockaddr_un own = {};
    socklen_t length = sizeof own;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &length) != 0) {
        throw std::runtime_error("no name");
    }
    int const sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    while (sendto(sender, "x", 1, MSG_DONTWAIT, reinterpret_cast<sockaddr const*>(&own), length) ==
           1) {
    }
    close(sender);
}

std::vector<std::string> NotifySocket::take() {
    std::vector<std::string> result;
    char message[4096];
    for (ssize_t size = 0; (size = recv(descriptor, message, sizeof message, MSG_DONTWAIT)) >= 0;) {
        result.emplace_back(message, static_cast<std::size_t>(size));
    }
    return result;
}

}  // namespace ovra::test
