#include "TreeSearch.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace manifest {

namespace extra = ovra::extra;

namespace {

char const* asPath(std::string const& directory) {
    return directory.empty() ? "." : directory.c_str();
}

// DT_REG, DT_DIR, or DT_UNKNOWN for anything else.
unsigned char typeOf(std::string const& path, dirent const& entry) {
    struct stat status = {};
    if (entry.d_type != DT_UNKNOWN || lstat(path.c_str(), &status) != 0) {
        return entry.d_type;
    }
    return S_ISREG(status.st_mode) ? DT_REG : S_ISDIR(status.st_mode) ? DT_DIR : DT_UNKNOWN;
}

}  // namespace

TreeSearch::TreeSearch(Pace& searchPace, OnFile found, OnFailure failed)
    : pace(searchPace), onFile(std::move(found)), onFailure(std::move(failed)) {}

void TreeSearch::leaveOut(std::string const& path) {
    std::size_t const nameBegin = path.rfind('/') + 1;
    struct stat status = {};
    if (stat(asPath(path.substr(0, nameBegin)), &status) == 0) {
        leftOut.push_back({status.st_dev, status.st_ino, path.substr(nameBegin)});
    }
}

bool TreeSearch::search(std::string const& directory) {
    // A list of what is still to be read, instead of recursion: one directory is open at a time.
    pending = {directory};
    bool isComplete = true;
    for (bool isFirst = true; !pending.empty(); isFirst = false) {
        std::string const next = std::move(pending.back());
        pending.pop_back();
        isComplete = readDirectory(next, isFirst) && isComplete;
    }
    return isComplete;
}

// The library's iterator does not say why a directory cannot be read, nor that it could be read in
// part only: so the system is asked here.
bool TreeSearch::readDirectory(std::string const& directory, bool isFirst) {
    struct Close {
        void operator()(DIR* opened) const { closedir(opened); }
    };
    std::unique_ptr<DIR, Close> const stream(opendir(asPath(directory)));
    if (!stream && errno == ENOENT && !isFirst) {
        return true;  // It has been removed since its name was read.
    }
    if (stream) {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this stream.
        while (auto const* const entry = readdir(stream.get())) {
            if (!pace.take(0)) {
                return false;
            }
            addEntry(directory, *entry);
            errno = 0;
        }
    }
    if (errno != 0) {
        onFailure(directory.empty() ? "./" : directory, extra::outcomeOf(errno));
        return false;
    }
    return true;
}

void TreeSearch::addEntry(std::string const& directory, dirent const& entry) {
    std::string const name = entry.d_name;
    if (name == "." || name == ".." || isLeftOut(directory, name)) {
        return;
    }
    std::string const path = directory + name;
    switch (typeOf(path, entry)) {
        case DT_REG:
            onFile(path);
            break;
        case DT_DIR:
            pending.push_back(path + '/');
            break;
        default:
            break;
    }
}

bool TreeSearch::isLeftOut(std::string const& directory, std::string const& name) const {
    return std::any_of(leftOut.begin(), leftOut.end(), [&](LeftOut const& entry) {
        struct stat status = {};
        return entry.name == name && stat(asPath(directory), &status) == 0 &&
               entry.device == status.st_dev && entry.inode == status.st_ino;
    });
}

}  // namespace manifest
