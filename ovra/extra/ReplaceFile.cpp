#include <ovra/extra/ReplaceFile.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <ovra/extra/internal/Descriptor.h>

// Below, a function that returns false has left the reason in `errno`.

namespace ovra::extra {

namespace {

constexpr mode_t ALL_MODE_BITS = 07777;
constexpr mode_t SET_ID_BITS = S_ISUID | S_ISGID;
constexpr mode_t NEW_FILE_MODE = 0666;
constexpr mode_t PRIVATE_MODE = 0600;
constexpr int MOST_LINKS = 40;  // As many as the system follows.
constexpr int MOST_NAMES = 1000;
constexpr int MOST_LOOKS = 10;  // At a file that others keep replacing.

bool hasFailedWith(int error) {
    errno = error;
    return false;
}

// Where the file lies, or is to lie, once all links are followed.
struct Place {
    Descriptor directory;
    std::string name;
    bool isTaken = false;
    struct stat status = {};  // Of the file that lies there.
};

// A directory that may be searched, but not read, can be worked in all the same.
Descriptor openDirectory(int base, std::string const& path) {
    Descriptor directory = openBelow(base, path.c_str(), O_RDONLY | O_DIRECTORY);
    if (!directory.isOpen() && errno == EACCES) {
        directory = openBelow(base, path.c_str(), O_PATH | O_DIRECTORY);
    }
    return directory;
}

bool readLink(Place const& place, std::string& contents) {
    char text[PATH_MAX];
    ssize_t const length =
        ::readlinkat(place.directory.get(), place.name.c_str(), text, sizeof text);
    if (length < 0) {
        return false;
    }
    contents.assign(text, static_cast<std::size_t>(length));
    return true;
}

// In a directory that everybody can write to, such as /tmp, only some links may be followed. Other
// users can swap their entries at any moment, so what the system says of one says nothing of the
// next: here, its rule is applied to the owner of the link, which they cannot change.
bool mayFollow(Place const& place) {
    constexpr mode_t SHARED = S_ISVTX | S_IWOTH;
    uid_t const owner = place.status.st_uid;
    struct stat directory;
    if (::fstatat(place.directory.get(), ".", &directory, 0) != 0) {
        return false;
    }
    bool const isShared = (directory.st_mode & SHARED) == SHARED;
    return !isShared || owner == directory.st_uid || owner == ::geteuid() || hasFailedWith(EACCES);
}

// Whether a link leads where its contents say, or to nothing. Those of a link such as
// /proc/self/fd/1 only describe a file, which need not have that name, or any.
bool isPlain(Place const& place, std::string const& contents) {
    int const directory = place.directory.get();
    auto const isNothing = [] { return errno == ENOENT || errno == ENOTDIR; };
    for (int tries = 0; tries < MOST_LOOKS; ++tries) {
        struct stat target;
        struct stat named;
        if (::fstatat(directory, place.name.c_str(), &target, 0) != 0) {
            return isNothing();  // It dangles.
        }
        bool const isNamed = ::fstatat(directory, contents.c_str(), &named, 0) == 0;
        if (!isNamed && !isNothing()) {
            return false;
        }
        if (isNamed && named.st_dev == target.st_dev && named.st_ino == target.st_ino) {
            return true;
        }
    }
    return hasFailedWith(EINVAL);
}

bool find(std::string path, Place& place) {
    for (int links = 0; links <= MOST_LINKS; ++links) {
        if (path.empty()) {
            return hasFailedWith(ENOENT);
        }
        std::size_t const nameBegin = path.rfind('/') + 1;
        place.name = path.substr(nameBegin);
        if (place.name.empty()) {
            return hasFailedWith(EISDIR);
        }
        int const base = place.directory.isOpen() ? place.directory.get() : AT_FDCWD;
        place.directory = openDirectory(base, nameBegin == 0 ? "." : path.substr(0, nameBegin));
        if (!place.directory.isOpen()) {
            return false;
        }
        if (::fstatat(place.directory.get(), place.name.c_str(), &place.status,
                      AT_SYMLINK_NOFOLLOW) != 0) {
            return errno == ENOENT;
        }
        if (!S_ISLNK(place.status.st_mode)) {
            place.isTaken = true;
            return S_ISREG(place.status.st_mode) || hasFailedWith(EINVAL);
        }
        if (!mayFollow(place) || !readLink(place, path) || !isPlain(place, path)) {
            return false;
        }
    }
    return hasFailedWith(ELOOP);
}

// A file beside the one to be replaced. The destructor removes it, unless it was renamed.
class Temporary {
public:
    explicit Temporary(Place const& besides) : place(besides) {
        struct timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        nextName = static_cast<std::uint64_t>(now.tv_nsec) * 0x9e3779b97f4a7c15u;
        nextName ^= static_cast<std::uint64_t>(::getpid()) << 32;
    }
    Temporary(Temporary const&) = delete;
    Temporary& operator=(Temporary const&) = delete;
    ~Temporary() {
        KeptErrno const kept;
        remove();
    }

    bool make(mode_t mode) {
        std::size_t length = NAME_MAX - 2 - LETTERS;
        for (int tries = 0; tries < MOST_NAMES; ++tries) {
            invent(length);
            file =
                openBelow(place.directory.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
            if (file.isOpen()) {
                isThere = true;
                return true;
            }
            if (errno == ENAMETOOLONG && length > 0) {
                length = std::min(length, place.name.size()) / 2;  // Less than usual is allowed.
            } else if (errno != EEXIST) {
                return false;
            }
        }
        return false;
    }

    bool remove() {
        return !std::exchange(isThere, false) ||
               ::unlinkat(place.directory.get(), name.c_str(), 0) == 0;
    }

    bool readMode(mode_t& mode) const {
        struct stat status;
        if (::fstat(file.get(), &status) != 0) {
            return false;
        }
        mode = status.st_mode & ALL_MODE_BITS;
        return true;
    }

    bool write(std::string_view contents) const { return file.write(contents); }

    bool setMode(mode_t mode) const { return ::fchmod(file.get(), mode) == 0; }

    // Sets `isKept` to whether all of it was allowed; false where it failed for another reason.
    bool setOwner(uid_t user, gid_t group, bool& isKept) const {
        isKept = ::fchown(file.get(), user, group) == 0;
        if (isKept) {
            return true;
        }
        bool const isDenied = errno == EPERM || errno == EINVAL;
        // The group may be one of the process's own.
        return isDenied &&
               (::fchown(file.get(), NOBODY, group) == 0 || errno == EPERM || errno == EINVAL);
    }

    bool sync() const { return ::fsync(file.get()) == 0; }

    bool rename() {
        if (!file.close() || ::renameat(place.directory.get(), name.c_str(), place.directory.get(),
                                        place.name.c_str()) != 0) {
            return false;
        }
        isThere = false;
        return true;
    }

private:
    static constexpr std::size_t LETTERS = 6;
    static constexpr uid_t NOBODY = static_cast<uid_t>(-1);  // Leaves the owner as it is.

    // The name need not be hard to guess: a file that is there already is never taken.
    void invent(std::size_t length) {
        static constexpr char letters[] = "0123456789abcdefghijklmnopqrstuvwxyz";
        std::uint64_t value = nextName++;
        if (length < place.name.size()) {
            while (length > 0 && (place.name[length] & 0xc0) == 0x80) {
                --length;  // Do not cut in the middle of a character.
            }
        }
        name = "." + place.name.substr(0, length) + ".";
        for (std::size_t i = 0; i < LETTERS; ++i) {
            name += letters[value % (sizeof letters - 1)];
            value /= sizeof letters - 1;
        }
    }

    Place const& place;
    std::uint64_t nextName;
    std::string name;
    Descriptor file;
    bool isThere = false;
};

// The mode that the system gives to a new file here, found by making one. The umask can be read
// only by changing it, which other threads would see, and the directory may have an access control
// list for new files.
bool readNewFileMode(Place const& place, mode_t& mode) {
    Temporary sample(place);
    return sample.make(NEW_FILE_MODE) && sample.readMode(mode) && sample.remove();
}

bool replace(Place const& place, std::string_view contents) {
    mode_t mode = place.status.st_mode & ALL_MODE_BITS;
    if (!place.isTaken && !readNewFileMode(place, mode)) {
        return false;
    }
    Temporary temporary(place);
    if (!temporary.make(PRIVATE_MODE) || !temporary.write(contents)) {
        return false;
    }
    if (place.isTaken) {
        bool isKept;
        if (!temporary.setOwner(place.status.st_uid, place.status.st_gid, isKept)) {
            return false;
        }
        mode &= isKept ? ALL_MODE_BITS : ~SET_ID_BITS;
    }
    return temporary.setMode(mode) && temporary.sync() && temporary.rename();
}

bool isSyncable(mode_t mode) {
    return S_ISREG(mode) || S_ISDIR(mode) || hasFailedWith(EINVAL);
}

// Checks the entry before opening it, because opening a device can have effects of its own, and
// again afterwards, because it may have been replaced.
bool sync(std::string const& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0 || !isSyncable(status.st_mode)) {
        return false;
    }
    Descriptor entry = openBelow(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK);
    if (!entry.isOpen() && errno == EACCES && S_ISREG(status.st_mode)) {
        entry = openBelow(AT_FDCWD, path.c_str(), O_WRONLY | O_NONBLOCK);
    }
    return entry.isOpen() && ::fstat(entry.get(), &status) == 0 && isSyncable(status.st_mode) &&
           ::fsync(entry.get()) == 0;
}

bool hasNul(std::string const& path) {
    return path.find('\0') != std::string::npos;
}

}  // namespace

Outcome replaceFile(fs::FilePath const& file, std::string_view contents) {
    if (hasNul(file.Path())) {
        return Outcome::REFUSED;
    }
    bool isSynced = false;
    Outcome const outcome = attempt([&] {
        Place place;
        if (!find(file.Path(), place) || !replace(place, contents)) {
            return false;
        }
        isSynced = ::fsync(place.directory.get()) == 0;
        return true;
    });
    return outcome == Outcome::DONE && !isSynced ? Outcome::DONE_NOT_SYNCED : outcome;
}

Outcome syncFile(fs::FilePath const& entry) {
    if (hasNul(entry.Path())) {
        return Outcome::REFUSED;
    }
    return attempt([&] { return sync(entry.Path()); });
}

}  // namespace ovra::extra
