#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace ovra::test {

/// A fresh directory that is removed, with all that is in it, when the test ends. Its helpers work
/// on the system itself, not on the library under test. Paths are relative to it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        if (mkdtemp(root.data()) == nullptr) {
            throw std::runtime_error("no scratch directory " + root);
        }
    }
    ScratchDirectory(ScratchDirectory const&) = delete;
    ScratchDirectory& operator=(ScratchDirectory const&) = delete;
    ~ScratchDirectory() { remove(AT_FDCWD, root); }

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
    // Relative to open directories, so that no tree is too deep and no link leads out of it.
    static void remove(int parent, std::string const& name) {
        if (unlinkat(parent, name.c_str(), 0) == 0) {
            return;
        }
        fchmodat(parent, name.c_str(), 0700, 0);
        int const descriptor =
            openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        DIR* const stream = descriptor >= 0 ? fdopendir(descriptor) : nullptr;
        if (stream == nullptr) {
            return;
        }
        std::vector<std::string> names;
        while (struct dirent const* const entry = readdir(stream)) {
            names.emplace_back(entry->d_name);
        }
        for (std::string const& child : names) {
            if (child != "." && child != "..") {
                remove(descriptor, child);
            }
        }
        closedir(stream);
        unlinkat(parent, name.c_str(), AT_REMOVEDIR);
    }

    std::string root = (std::filesystem::temp_directory_path() / "ovra-XXXXXX").string();
};

}  // namespace ovra::test
