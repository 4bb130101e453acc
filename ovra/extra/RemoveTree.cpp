#include <ovra/extra/RemoveTree.h>

#include <cstddef>
#include <string>
#include <utility>

#include <sys/stat.h>

#include <ovra/extra/internal/Descriptor.h>
#include <ovra/extra/internal/TreeRemoval.h>

namespace ovra::extra {

Outcome removeTree(fs::FilePath const& root) {
    std::string path = root.Path();
    if (path.find('\0') != std::string::npos) {
        return Outcome::REFUSED;
    }
    if (path.empty()) {
        return Outcome::MISSING;
    }
    path.resize(path.find_last_not_of('/') + 1);
    std::size_t const nameBegin = path.rfind('/') + 1;
    std::string const name = path.substr(nameBegin);
    path.resize(nameBegin);
    if (name.empty() || name == "." || name == "..") {
        return Outcome::REFUSED;
    }

    Descriptor parent;
    struct stat status = {};
    Outcome const found = attempt([&] {
        parent = openBelow(AT_FDCWD, path.empty() ? "." : path.c_str(), O_PATH | O_DIRECTORY);
        return parent.isOpen() &&
               ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    });
    if (found != Outcome::DONE) {
        return found;
    }
    if (!S_ISDIR(status.st_mode)) {
        return attempt([&] { return ::unlinkat(parent.get(), name.c_str(), 0) == 0; });
    }
    return TreeRemoval(std::move(parent), name).run();
}

}  // namespace ovra::extra
