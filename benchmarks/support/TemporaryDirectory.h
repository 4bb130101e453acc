#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace ovra::bench {

/// A directory that is removed with its object. In memory where possible, since the noise of disks
/// and their journals would hide what is compared.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        char const* const chosen = std::getenv("OVRA_BENCH_DIRECTORY");
        if (chosen != nullptr && *chosen != '\0') {
            path = chosen;
        } else {
            path = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        }
        path += "/ovra-bench-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("no temporary directory at " + path);
        }
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string operator/(std::string const& name) const { return path + "/" + name; }

private:
    std::string path;
};

}  // namespace ovra::bench
