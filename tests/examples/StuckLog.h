#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace ovra::test {

/// A named pipe to log to, which holds only a few lines and can be filled up.
class StuckLog {
public:
    explicit StuckLog(std::string const& path) {
        if (mkfifo(path.c_str(), 0600) != 0) {
            throw std::runtime_error("no pipe");
        }
        // For writing too, so that it never ends.
        descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (descriptor == -1 || fcntl(descriptor, F_SETPIPE_SZ, 4096) == -1) {
            throw std::runtime_error("no pipe");
        }
    }
    StuckLog(StuckLog const&) = delete;
    StuckLog& operator=(StuckLog const&) = delete;
    ~StuckLog() { close(descriptor); }

    /// Reads just as far as `text`, and fills the log up behind it: whoever writes the next line is
    /// held up until somebody reads on.
    void waitFor(std::string const& text) {
        char c = 0;
        while (seen.find(text) == std::string::npos) {
            if (::read(descriptor, &c, 1) != 1) {
                throw std::runtime_error("the log ended");
            }
            seen += c;
        }
        fillUp();
    }
    int fileDescriptor() const { return descriptor; }

private:
    void fillUp() const {
        int const flags = fcntl(descriptor, F_GETFL);
        fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
        // Single letters: of a longer text the last few places would stay free.
        while (write(descriptor, "x", 1) == 1) {
        }
        fcntl(descriptor, F_SETFL, flags);
    }

    int descriptor = -1;
    std::string seen;
};

}  // namespace ovra::test
