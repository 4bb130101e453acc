#include "ManifestFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include <ovra/fs/FileHandle.h>

#include "Quote.h"

namespace manifest {

using ovra::fs::FileHandle;

namespace {

// Always with a directory part: a move takes a bare name such as "x:" for a root.
std::string withDirectory(std::string const& path) {
    return path.find('/') == std::string::npos ? "./" + path : path;
}

[[noreturn]] void fail(std::string const& path, std::string const& reason) {
    throw std::runtime_error(quoted(path) + ": " + reason);
}

[[noreturn]] void failWithErrno(std::string const& path) {
    fail(path, std::generic_category().message(errno));
}

// Where a chain of links leads, also if nothing is there yet.
std::string targetOf(std::string path) {
    for (int links = 0; links < 40; ++links) {
        char text[PATH_MAX];
        ssize_t const length = readlink(path.c_str(), text, sizeof text);
        if (length <= 0) {
            break;
        }
        std::string const target(text, static_cast<std::size_t>(length));
        path.resize(target[0] == '/' ? 0 : path.rfind('/') + 1);
        path += target;
    }
    return path;
}

// Whether all of it was written, or the reason in `errno`.
bool writeAll(int descriptor, std::string const& text) {
    for (std::size_t written = 0; written < text.size();) {
        ssize_t const count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count == -1 && errno != EINTR) {
            return false;
        }
        written += count == -1 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

// The permissions that a new file gets from the shell's redirection.
unsigned long defaultPermissions() {
    mode_t const mask = umask(0);
    umask(mask);
    return 0666UL & ~static_cast<unsigned long>(mask);
}

}  // namespace

ManifestFile::ManifestFile(std::string const& path)
    : name(path),
      place(targetOf(withDirectory(path))),
      directory(place.substr(0, place.rfind('/') + 1)) {
    requirePlace();
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
        failWithErrno(name);
    }
}

ManifestFile::~ManifestFile() {
    if (descriptor != -1) {
        close(descriptor);
    }
    if (!temporary.empty()) {
        FileHandle(temporary).Remove();
    }
}

void ManifestFile::write(std::string const& text) {
    if (descriptor == -1) {
        makeTemporary();
    }
    if (!writeAll(descriptor, text)) {
        failWithErrno(name);
    }
}

void ManifestFile::makeTemporary() {
    // Not a name of our own choosing: another user could have put a link there.
    std::string chosen = directory + ".ovra-manifest-XXXXXX";
    descriptor = mkstemp(chosen.data());
    if (descriptor == -1) {
        failWithErrno(name);
    }
    temporary = chosen;

    FileHandle file(temporary);
    FileHandle const older(place);
    file.SetPermissions(older.IsFile() ? older.Permissions() : defaultPermissions());
}

void ManifestFile::sync() {
    if (fsync(descriptor) != 0) {
        failWithErrno(name);
    }
    close(descriptor);
    descriptor = -1;
}

void ManifestFile::moveIntoPlace() {
    requirePlace();
    sync();
    FileHandle target(place);
    if (!FileHandle(temporary).Move(target)) {
        fail(name, "cannot be put in place");
    }
    temporary.clear();
    // So that the new name survives a loss of power, if the directory can be synced.
    int const opened = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened != -1) {
        fsync(opened);
        close(opened);
    }
}

// Moving to a directory would land inside it, and moving onto a device would replace that.
void ManifestFile::requirePlace() const {
    FileHandle const target(place);
    if (place.back() == '/' || target.IsDirectory()) {
        fail(name, "Is a directory");
    }
    if (target.Exists() && !target.IsFile()) {
        fail(name, "not a regular file");
    }
}

}  // namespace manifest
