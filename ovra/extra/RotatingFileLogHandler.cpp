#include <ovra/extra/RotatingFileLogHandler.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/RotatingFile.h>

namespace ovra::extra {

namespace {

// A path with a NUL byte names another file to the system: use the empty path instead, at which
// nothing can exist.
std::string inDirectory(fs::FilePath const& file) {
    if (file.Path().find('\0') != std::string::npos) {
        return std::string();
    }
    struct stat status;
    bool const isDirectory = ::stat(file.Path().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    return isDirectory ? file.Resolve("ovra.log").Path() : file.Path();
}

// The target of a link, which need not exist yet: if the link itself were moved, the target would
// stay behind for ever.
std::string resolved(std::string path) {
    constexpr int MOST_LINKS = 40;  // As many as the system follows.
    char target[PATH_MAX];
    for (int links = 0; links < MOST_LINKS; ++links) {
        ssize_t const length = ::readlink(path.c_str(), target, sizeof target);
        if (length <= 0) {
            break;
        }
        path.resize(*target == '/' ? 0 : path.rfind('/') + 1);
        path.append(target, static_cast<std::size_t>(length));
    }
    return path;
}

}  // namespace

RotatingFileLogHandler::RotatingFileLogHandler(fs::FilePath const& path,
                                               RotatingFileOptions const& options)
    : file([&] {
          KeptErrno const keptErrno;
          return std::make_unique<RotatingFile>(resolved(inDirectory(path)), options);
      }()) {}

RotatingFileLogHandler::~RotatingFileLogHandler() {
    KeptErrno const keptErrno;
    file.reset();
}

void RotatingFileLogHandler::handleLogMessage(char const* line, log::LogLevel level) {
    if (line != nullptr) {
        KeptErrno const keptErrno;
        file->write(line, level);
    }
}

bool RotatingFileLogHandler::reopen() {
    KeptErrno const keptErrno;
    return file->reopen();
}

void RotatingFileLogHandler::requestReopen() {
    file->requestReopen();
}

bool RotatingFileLogHandler::sync() {
    KeptErrno const keptErrno;
    return file->sync();
}

std::uint64_t RotatingFileLogHandler::lostLines() const {
    return file->lostLines();
}

}  // namespace ovra::extra
