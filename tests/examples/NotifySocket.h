#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ovra::test {

/// What a service manager listens on: a service sends its state there, one datagram each.
class NotifySocket {
public:
    /// Listens at `path`, or, for "@name", at a name that is in no directory.
    explicit NotifySocket(std::string const& path);
    NotifySocket(NotifySocket const&) = delete;
    NotifySocket& operator=(NotifySocket const&) = delete;
    ~NotifySocket();

    /// The value of NOTIFY_SOCKET.
    std::string const& address() const;

    /// Reads on until a message that begins with `text`, and returns it.
    std::string waitFor(std::string const& text);
    /// Sends itself as many messages as it holds: it takes no more until some are read.
    void fill() const;

    /// The messages that are there, without waiting.
    std::vector<std::string> take();

private:
    std::string const name;
    int descriptor = -1;
};

}  // namespace ovra::test
