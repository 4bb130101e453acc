#include <ovra/extra/Space.h>

#include <string>

#include <sys/statvfs.h>

namespace ovra::extra {

Outcome readSpace(fs::FilePath const& entry, Space& space) {
    std::string const& path = entry.Path();
    if (path.find('\0') != std::string::npos) {
        return Outcome::REFUSED;
    }
    return attempt([&] {
        struct statvfs found;
        int failed;
        do {
            failed = ::statvfs(path.c_str(), &found);
        } while (failed != 0 && errno == EINTR);
        if (failed != 0) {
            return false;
        }
        std::uint64_t const blockBytes = found.f_frsize;
        space.totalBytes = found.f_blocks * blockBytes;
        space.freeBytes = found.f_bfree * blockBytes;
        space.availableBytes = found.f_bavail * blockBytes;
        space.totalEntries = found.f_files;
        space.freeEntries = found.f_ffree;
        space.readOnly = (found.f_flag & ST_RDONLY) != 0;
        return true;
    });
}

}  // namespace ovra::extra
