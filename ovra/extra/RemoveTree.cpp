#include <ovra/extra/RemoveTree.h>

#include <cstddef>
#include <string>
#include <utility>

#include <sys/stat.h>

#include <ovra/extra/internal/Descriptor.h>
#include <ovra/extra/internal/TreeRemoval.h>

namespace ovra::extra {

Outcome removeTree(fs::FilePath const& root) {
    KeptErrno const kept;
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

    Descriptor parent =
        openBelow(AT_FDCWD, path.empty() ? "." : path.c_str(), O_PATH | O_DIRECTORY);
    struct stat status;
    if (!parent.isOpen() ||
        ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return outcomeOf(errno);
    }
    return TreeRemoval(std::move(parent), name).run();
}

}  // namespace ovra::extra
