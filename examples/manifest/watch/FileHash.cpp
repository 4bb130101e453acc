#include "FileHash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "Digest.h"
#include "Sha256.h"

namespace manifest {

namespace extra = ovra::extra;

namespace {

constexpr std::size_t READ_BYTES = 32768;

// A descriptor that is closed with its scope.
class Descriptor {
public:
    explicit Descriptor(int opened) : number(opened) {}
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor() {
        if (number != -1) {
            close(number);
        }
    }

    int const number;
};

// The library's streams wait where a named pipe has no writer. Here the entry can become one at any
// moment, so it is opened without waiting. (That fails for a file on which another process has a
// lease, and then it is right to wait.)
int openFile(std::string const& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    int const flags = O_RDONLY | O_NOCTTY | O_CLOEXEC;
    int const opened = open(path.c_str(), flags | O_NONBLOCK);
    return opened == -1 && errno == EWOULDBLOCK ? open(path.c_str(), flags) : opened;
}

bool isRegular(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

FileHash hashFile(std::string const& path, Pace& pace) {
    Descriptor const file(openFile(path));
    if (file.number == -1) {
        return {extra::outcomeOf(errno), {}};
    }
    if (!isRegular(file.number)) {
        return {extra::Outcome::WRONG_KIND, {}};
    }
    Sha256 sha256;
    char block[READ_BYTES];
    for (;;) {
        ssize_t const count = read(file.number, block, sizeof block);
        if (count == -1 && errno != EINTR) {
            return {extra::outcomeOf(errno), {}};
        }
        auto const bytes = static_cast<std::size_t>(count == -1 ? 0 : count);
        sha256.add(block, bytes);
        if (!pace.take(bytes)) {
            return {extra::Outcome::DONE, {}};
        }
        if (count == 0) {
            return {extra::Outcome::DONE, digitsOf(sha256.finish())};
        }
    }
}

}  // namespace manifest
