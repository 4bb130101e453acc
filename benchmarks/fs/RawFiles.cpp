#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <benchmarks/fs/FileBenchmarks.h>

namespace ovra::bench {

namespace {

bool isDotOrDotDot(char const* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// The system calls without anything around them: the limit.
struct RawFiles {
    using Text = std::string;
    static Text text(std::string const& text) { return text; }

    struct Query {
        explicit Query(std::string text) : path(std::move(text)) {}
        bool exists() const {
            struct stat status;
            return lstat(path.c_str(), &status) == 0;
        }
        std::string path;
    };
    static int list(Text const& directory) {
        std::vector<std::string> names;
        DIR* const stream = opendir(directory.c_str());
        if (stream == nullptr) {
            return -1;
        }
        while (dirent const* const entry = readdir(stream)) {
            if (!isDotOrDotDot(entry->d_name)) {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(stream);
        return static_cast<int>(names.size());
    }
    static bool removeTree(Text const& directory) {
        return empty(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) &&
               rmdir(directory.c_str()) == 0;
    }
    static bool copy(Text const& from, Text const& to) {
        static char buffer[65536];
        int const source = open(from.c_str(), O_RDONLY | O_CLOEXEC);
        int const target = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        ssize_t size = 0;
        while ((size = read(source, buffer, sizeof buffer)) > 0 &&
               write(target, buffer, static_cast<std::size_t>(size)) == size) {
        }
        close(source);
        return close(target) == 0 && size == 0;
    }

private:
    static bool empty(int directory) {
        DIR* const stream = directory >= 0 ? fdopendir(directory) : nullptr;
        if (stream == nullptr) {
            return false;
        }
        bool isEmptied = true;
        while (dirent const* const entry = readdir(stream)) {
            if (isDotOrDotDot(entry->d_name)) {
                continue;
            }
            if (entry->d_type == DT_DIR) {
                int const inner =
                    openat(directory, entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                isEmptied &= empty(inner) && unlinkat(directory, entry->d_name, AT_REMOVEDIR) == 0;
            } else {
                isEmptied &= unlinkat(directory, entry->d_name, 0) == 0;
            }
        }
        closedir(stream);
        return isEmptied;
    }
};

[[maybe_unused]] bool const isAdded = FileBenchmarks<RawFiles>::add("system calls");

}  // namespace

}  // namespace ovra::bench
