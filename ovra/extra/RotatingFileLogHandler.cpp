#include <ovra/extra/RotatingFileLogHandler.h>

#include <sys/stat.h>

#include <cstdlib>
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

// The target of a link: if the link itself were moved, the target would stay behind for ever.
std::string resolved(std::string const& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        LogFile::open(path.c_str());  // Makes the target of a dangling link.
        struct Free {
            void operator()(char* text) const { std::free(text); }
        };
        std::unique_ptr<char, Free> const target(::realpath(path.c_str(), nullptr));
        if (target) {
            return target.get();
        }
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
