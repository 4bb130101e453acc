#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace ovra::bench {

/// A directory that goes with its object; in memory where there is a place for that, since disks
/// and their journals would drown what is compared.
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
