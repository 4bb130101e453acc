#include "ManifestFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

// The permissions that a new file gets from the shell's redirection.
unsigned long defaultPermissions() {
    mode_t const mask = umask(0);
    umask(mask);
    return 0666UL & ~static_cast<unsigned long>(mask);
}

}  // namespace

ManifestFile::ManifestFile(std::string const& path)
    : name(path), place(withDirectory(path)), directory(place.substr(0, place.rfind('/') + 1)) {
    requirePlace();
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
        failWithErrno(name);
    }
}

ManifestFile::~ManifestFile() {
    if (!temporary.empty()) {
        FileHandle(temporary).Remove();
    }
}

void ManifestFile::write(std::string const& text) {
    // Not a name of our own choosing: another user could have put a link there.
    std::string chosen = directory + ".ovra-manifest-XXXXXX";
    int const created = mkstemp(chosen.data());
    if (created == -1) {
        failWithErrno(name);
    }
    close(created);
    temporary = chosen;

    FileHandle file(temporary);
    FileHandle const older(place);
    file.SetPermissions(older.IsFile() ? older.Permissions() : defaultPermissions());
    auto const stream = file.CreateOutputStream(std::ios_base::binary);
    stream->write(text.data(), static_cast<std::streamsize>(text.size()));
    stream->flush();
    if (!*stream) {
        fail(name, "cannot be written");
    }
}

void ManifestFile::moveIntoPlace() {
    requirePlace();
    FileHandle target(place);
    if (!FileHandle(temporary).Move(target)) {
        fail(name, "cannot be put in place");
    }
    temporary.clear();
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
