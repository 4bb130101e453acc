#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace ovra::test {

/// Holds up whoever opens a file, as a disk that hangs does, until it is released: by a lease. (The
/// system breaks a lease after 45 seconds.)
class HungFile {
public:
    explicit HungFile(std::string const& path)
        : descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        // The system sends SIGIO when somebody opens the file.
        sigemptyset(&signals);
        sigaddset(&signals, SIGIO);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        if (fcntl(descriptor, F_SETLEASE, F_WRLCK) != 0) {
            throw std::runtime_error("no lease on " + path);
        }
    }
    HungFile(HungFile const&) = delete;
    HungFile& operator=(HungFile const&) = delete;
    ~HungFile() { close(descriptor); }

    /// Returns once somebody is held up.
    void waitForReader() const {
        int received = 0;
        sigwait(&signals, &received);
    }
    void release() const { fcntl(descriptor, F_SETLEASE, F_UNLCK); }

private:
    int const descriptor;
    sigset_t signals = {};
};

}  // namespace ovra::test
