#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ovra::test {

/// A fresh directory that goes, with all that is in it, when the test ends. Its helpers work on the
/// system itself, not on the library under test. Paths are relative to it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        auto pattern = (std::filesystem::temp_directory_path() / "ovra-examples-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no scratch directory");
        }
        root = pattern;
    }
    ScratchDirectory(ScratchDirectory const&) = delete;
    ScratchDirectory& operator=(ScratchDirectory const&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        for (auto entry = std::filesystem::recursive_directory_iterator(root, ignored);
             entry != std::filesystem::recursive_directory_iterator(); entry.increment(ignored)) {
            if (entry->is_directory(ignored) && !entry->is_symlink(ignored)) {
                chmod(entry->path().c_str(), 0700);
            }
        }
        std::filesystem::remove_all(root, ignored);
    }

    std::string path(std::string const& name = "") const {
        return name.empty() ? root : root + '/' + name;
    }

    void write(std::string const& name, std::string const& content) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream stream(path(name), std::ios::binary);
        if (!(stream << content << std::flush)) {
            throw std::runtime_error("cannot write " + name);
        }
    }
    std::string read(std::string const& name) const {
        std::ifstream stream(path(name), std::ios::binary);
        if (!stream) {
            throw std::runtime_error("cannot read " + name);
        }
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    bool exists(std::string const& name) const {
        struct stat status = {};
        return lstat(path(name).c_str(), &status) == 0;
    }
    /// The entries directly in the directory `name`.
    std::size_t entries(std::string const& name = "") const {
        std::filesystem::directory_iterator const all(path(name));
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    void makeDirectory(std::string const& name) const {
        std::filesystem::create_directories(path(name));
    }
    void link(std::string const& target, std::string const& name) const {
        std::filesystem::create_symlink(target, path(name));
    }
    void permit(std::string const& name, mode_t mode) const {
        if (chmod(path(name).c_str(), mode) != 0) {
            throw std::runtime_error("cannot change the mode of " + name);
        }
    }

private:
    std::string root;
};

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
