#include <ovra/fs/internal/TreeRemoval.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/internal/DirectoryStream.h>

namespace ovra::fs::internal {

namespace {

struct StreamCloser {
    void operator()(DIR* opened) const { ::closedir(opened); }
};

// A directory that is being emptied, linked to the one further out.
struct OpenDirectory {
    OpenDirectory const* outer;
    dev_t device;
    ino_t inode;
};

bool isOpen(struct stat const& status, OpenDirectory const* innermost) {
    for (OpenDirectory const* open = innermost; open != nullptr; open = open->outer) {
        if (open->device == status.st_dev && open->inode == status.st_ino) {
            return true;
        }
    }
    return false;
}

// `path` leads to `directory`, and is restored before this returns.
void removeEntries(std::string& path, OpenDirectory const* directory) {
    std::unique_ptr<DIR, StreamCloser> const stream(::opendir(path.c_str()));
    if (stream == nullptr) {
        return;
    }
    int const descriptor = ::dirfd(stream.get());
    std::size_t const pathSize = path.size();
    while (struct dirent const* const entry = readEntry(stream.get())) {
        char const* const name = entry->d_name;
        if (pathSize + 1 + std::strlen(name) >= PATH_MAX) {
            continue;  // No path can name it.
        }
        // The only query: d_type neither follows links nor identifies a directory, and may be out
        // of date.
        struct stat status;
        if (::fstatat(descriptor, name, &status, 0) != 0) {
            continue;
        }
        if (S_ISREG(status.st_mode)) {
            [[maybe_unused]] int const ignored = ::unlinkat(descriptor, name, 0);
        } else if (S_ISDIR(status.st_mode)) {
            path.append(1, '/').append(name);
            // Links may lead back up. Emptying a directory once is enough, and two links to an
            // ancestor would otherwise double the work at each level until the system refuses to
            // follow more links.
            if (!isOpen(status, directory)) {
                OpenDirectory const inner{directory, status.st_dev, status.st_ino};
                removeEntries(path, &inner);
            }
            FileHandleBackendImpl(path).RemoveDirectory();
            path.resize(pathSize);
        }
    }
}

}  // namespace

void emptyDirectory(std::string path) {
    struct stat status = {};
    bool const known = ::stat(path.c_str(), &status) == 0;
    OpenDirectory const directory{nullptr, status.st_dev, status.st_ino};
    removeEntries(path, known ? &directory : nullptr);
}

}  // namespace ovra::fs::internal
