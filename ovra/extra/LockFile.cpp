#include <ovra/extra/LockFile.h>

#include <string>
#include <utility>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ovra/extra/internal/Descriptor.h>
#include <ovra/extra/internal/ForkCount.h>

namespace ovra::extra {

namespace {

constexpr mode_t NEW_FILE_MODE = 0644;
constexpr int MOST_TRIES = 100;

// Opens only a regular file: opening a device can have effects of its own. A file that may not be
// written to can be locked all the same.
Descriptor openToLock(std::string const& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return Descriptor();
    }
    Descriptor file =
        openBelow(AT_FDCWD, path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, NEW_FILE_MODE);
    if (!file.isOpen() && (errno == EACCES || errno == EPERM || errno == EROFS)) {
        int const error = errno;
        file = openBelow(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK);
        errno = error;  // The first of the two failures is the reason.
    }
    return file;
}

// Whether the path still names the file that was locked; `false` and 0 in `errno` if not.
bool isStillNamed(std::string const& path, struct stat const& locked) {
    struct stat named;
    if (::stat(path.c_str(), &named) != 0) {
        errno = errno == ENOENT ? 0 : errno;
        return false;
    }
    errno = 0;
    return named.st_dev == locked.st_dev && named.st_ino == locked.st_ino;
}

// For people to read: a failure to write it makes no difference.
void writeId(Descriptor const& file, int id) {
    std::string const text = std::to_string(std::uint64_t{static_cast<unsigned int>(id)}) + "\n";
    if (file.write(text)) {
        [[maybe_unused]] int const ignored =
            ::ftruncate(file.get(), static_cast<off_t>(text.size()));
    }
}

}  // namespace

LockFile::LockFile(fs::FilePath const& file) : path(file.Path()) {}

LockFile::~LockFile() {
    unlock();
}

Outcome LockFile::tryLock() {
    if (isLocked()) {
        return Outcome::DONE;
    }
    if (path.find('\0') != std::string::npos) {
        return Outcome::REFUSED;
    }
    unlock();
    countForks();
    return attempt([this] {
        for (int tries = 0; tries < MOST_TRIES; ++tries) {
            Descriptor file = openToLock(path);
            struct stat status;
            if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
                return false;
            }
            if (!S_ISREG(status.st_mode)) {
                errno = EINVAL;
                return false;
            }
            if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
                return false;
            }
            if (isStillNamed(path, status)) {
                owner = ::getpid();
                forks = forkCount();
                writeId(file, owner);
                descriptor = file.release();
                return true;
            }
            int const error = errno;
            ::flock(file.get(), LOCK_UN);  // A child that was forked meanwhile has a copy.
            errno = error;
            if (error != 0) {
                return false;
            }
        }
        errno = EBUSY;
        return false;
    });
}

// After a fork, parent and child have copies of one descriptor, and share one lock. Closing one
// copy alone releases nothing; releasing the lock releases it for both.
void LockFile::unlock() {
    KeptErrno const kept;
    if (isLocked()) {
        ::flock(descriptor, LOCK_UN);
    }
    Descriptor const closed(std::exchange(descriptor, -1));
}

bool LockFile::isLocked() const {
    return descriptor >= 0 && owner == ::getpid() && forks == forkCount();
}

}  // namespace ovra::extra
