#include <ovra/extra/internal/TreeRemoval.h>

#include <cstring>
#include <new>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>

namespace ovra::extra {

namespace {

constexpr std::size_t BUFFER_BYTES = 32768;
constexpr std::size_t ALWAYS_OPEN = 2;     // The parent of the root, and the root.
constexpr std::size_t INNERMOST_OPEN = 8;  // With these and one that is being opened: 11.
constexpr int MOST_SCANS = 10;             // Of one directory, while others add entries to it.

// Each entry is scanned only once, so all that may turn out to be a directory counts as one.
bool mayBeDirectory(unsigned char type) {
    return type == DT_DIR || type == DT_UNKNOWN;
}

bool isGone(int error) {
    return error == ENOENT || error == ENOTDIR;
}

bool isNotEmpty(int error) {
    return error == ENOTEMPTY || error == EEXIST;
}

Descriptor openDirectory(Descriptor const& parent, char const* name) {
    return openBelow(parent.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
}

}  // namespace

bool TreeRemoval::Identity::read(Descriptor const& directory) {
    struct statx status;
    if (::statx(directory.get(), "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) {
        return false;
    }
    device = std::uint64_t{status.stx_dev_major} << 32 | status.stx_dev_minor;
    number = status.stx_ino;
    birthSeconds = status.stx_btime.tv_sec;
    birthNanoseconds = status.stx_btime.tv_nsec;
    isMountPoint = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return true;
}

bool TreeRemoval::Identity::hasNumberOf(Identity const& other) const {
    return device == other.device && number == other.number;
}

bool TreeRemoval::Identity::hasBirthOf(Identity const& other) const {
    return birthSeconds == other.birthSeconds && birthNanoseconds == other.birthNanoseconds;
}

char const* TreeRemoval::Level::current() const {
    return waiting.c_str() + waiting.rfind('\0', waiting.size() - 2) + 1;
}

void TreeRemoval::Level::dropCurrent() {
    waiting.resize(waiting.rfind('\0', waiting.size() - 2) + 1);
}

TreeRemoval::TreeRemoval(Descriptor parent, std::string const& name)
    : buffer(new std::uint64_t[BUFFER_BYTES / sizeof(std::uint64_t)]) {
    Level outermost;
    outermost.directory = std::move(parent);
    outermost.waiting.assign(name.c_str(), name.size() + 1);
    levels.push_back(std::move(outermost));
}

Outcome TreeRemoval::run() {
    for (;;) {
        if (!levels.back().waiting.empty()) {
            enter();
        } else if (levels.size() > 1) {
            leave();
        } else {
            return outcome;
        }
    }
}

// Opens the directory whose turn it is. Returns 0 if it is open, otherwise why it cannot or must
// not be entered: ENOENT if it no longer exists. First tries to remove it: that succeeds if it is
// empty, and shows whether something is mounted on it.
int TreeRemoval::open(Level& level) const {
    Level const& parent = levels.back();
    bool const isRoot = levels.size() == 1;
    if (::unlinkat(parent.directory.get(), parent.current(), AT_REMOVEDIR) == 0) {
        return ENOENT;
    }
    bool const mayStillBeEmptied =
        isNotEmpty(errno) || errno == EACCES || errno == EPERM || (errno == EBUSY && isRoot);
    if (!mayStillBeEmptied) {
        return errno;
    }
    level.directory = openDirectory(parent.directory, parent.current());
    if (!level.directory.isOpen()) {
        return errno == ELOOP ? ENOTDIR : errno;  // A link.
    }
    if (!level.identity.read(level.directory)) {
        return errno;
    }
    bool const isForeign = !isRoot && (level.identity.isMountPoint ||
                                       level.identity.device != levels[1].identity.device);
    return isForeign ? EBUSY : 0;
}

void TreeRemoval::enter() {
    Level level;
    int error = open(level);
    if (error == 0) {
        try {
            levels.push_back(std::move(level));
            std::size_t const index = levels.size() - 1;
            if (index >= ALWAYS_OPEN + INNERMOST_OPEN) {
                levels[index - INNERMOST_OPEN].directory = Descriptor();
            }
            scan();
            return;
        } catch (std::bad_alloc const&) {
            error = ENOMEM;
        }
    }
    Level& parent = levels.back();
    if (error == ENOTDIR) {
        if (!removeOther(parent.current()) && entersRootAgain()) {
            return;  // A directory again. Below the root, the next scan finds it.
        }
    } else if (error != ENOENT) {
        fail(error);
    }
    parent.dropCurrent();
}

// Removes what is no directory from the innermost level, and keeps the names of the rest.
void TreeRemoval::scan() {
    Level& level = levels.back();
    ++level.scans;
    for (;;) {
        ssize_t const length = ::getdents64(level.directory.get(), buffer.get(), BUFFER_BYTES);
        if (length < 0 && errno != ENOENT) {  // Without names if others have removed it.
            fail(errno);
        }
        if (length <= 0) {
            return;
        }
        auto const* const entries = static_cast<char const*>(static_cast<void*>(buffer.get()));
        for (ssize_t offset = 0; offset < length;) {
            auto const* const entry =
                static_cast<struct dirent64 const*>(static_cast<void const*>(entries + offset));
            offset += entry->d_reclen;
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0 ||
                (!mayBeDirectory(entry->d_type) && removeOther(entry->d_name))) {
                continue;
            }
            try {
                level.waiting.append(entry->d_name, std::strlen(entry->d_name) + 1);
            } catch (std::bad_alloc const&) {
                fail(ENOMEM);
            }
        }
    }
}

// Removes the innermost level, which is as empty as it could be made, and goes up from it.
void TreeRemoval::leave() {
    std::size_t const outer = levels.size() - 2;
    if (!levels[outer].directory.isOpen() && !reopen(outer)) {
        return;
    }
    Level& level = levels.back();
    Level& parent = levels[outer];
    bool isReplaced = false;
    if (::unlinkat(parent.directory.get(), parent.current(), AT_REMOVEDIR) != 0) {
        int error = errno;
        isReplaced = error == ENOTDIR;
        if (isNotEmpty(error) && !level.hasFailed) {
            bool const isStillThere =
                openAgain(parent.directory, parent.current(), level.identity).isOpen();
            // Others have added entries, or the file system left some out of the scan.
            if (isStillThere && level.scans < MOST_SCANS &&
                ::lseek(level.directory.get(), 0, SEEK_SET) == 0) {
                scan();
                return;
            }
            isReplaced = !isStillThere;
        }
        if (!isReplaced && !isGone(error)) {
            fail(error);
        }
    }
    parent.hasFailed |= level.hasFailed;
    levels.pop_back();
    if (!isReplaced || !entersRootAgain()) {
        levels.back().dropCurrent();
    }
}

// Whether something else, which now has the name of the root, is to be removed as well. Below the
// root, the next scan of the level above finds such things.
bool TreeRemoval::entersRootAgain() {
    Level& outermost = levels.front();
    if (levels.size() > 1) {
        return false;
    }
    if (++outermost.scans == MOST_SCANS) {
        fail(EEXIST);
        return false;
    }
    return true;
}

// False if the entry of the innermost level is a directory.
bool TreeRemoval::removeOther(char const* name) {
    if (::unlinkat(levels.back().directory.get(), name, 0) != 0) {
        if (errno == EISDIR) {
            return false;
        }
        if (errno != ENOENT) {
            fail(errno);
        }
    }
    return true;
}

// Opens a level that was closed. False if it is no longer in the tree, and so nothing below it is;
// the innermost level that is still in the tree is then the last one.
bool TreeRemoval::reopen(std::size_t index) {
    Level& level = levels[index];
    level.directory = openAgain(levels[index + 1].directory, "..", level.identity);
    if (level.directory.isOpen()) {
        return true;
    }
    // Something has been moved, or copied up: go down again, by names, from the root.
    for (std::size_t i = ALWAYS_OPEN; i <= index; ++i) {
        Level& above = levels[i - 1];
        levels[i].directory = openAgain(above.directory, above.current(), levels[i].identity);
        if (!levels[i].directory.isOpen()) {
            int const error = errno;
            levels.erase(levels.begin() + static_cast<std::ptrdiff_t>(i), levels.end());
            if (!isGone(error)) {
                fail(error);
            }
            above.dropCurrent();
            return false;
        }
        if (i > ALWAYS_OPEN) {
            above.directory = Descriptor();
        }
    }
    return true;
}

// Opens the directory `name`, if it is the one that was open before. Any name leads downwards, so
// that nothing outside the tree can be there, and the number suffices. Only the way up can lead
// out, to a later directory that was given the same number, and so the birth has to be the same,
// too. That fails where the directory has changed its birth: on an overlay, when the first change
// in it copies it to the upper file system.
Descriptor TreeRemoval::openAgain(Descriptor const& from, char const* name, Identity& known) {
    bool const isUpwards = std::strcmp(name, "..") == 0;
    Descriptor directory = openDirectory(from, name);
    Identity found;
    if (directory.isOpen() && found.read(directory) && found.hasNumberOf(known) &&
        (!isUpwards || found.hasBirthOf(known))) {
        known = found;
        return directory;
    }
    if (directory.isOpen()) {
        errno = ENOENT;
    }
    return Descriptor();
}

void TreeRemoval::fail(int error) {
    levels.back().hasFailed = true;
    if (outcome == Outcome::DONE) {
        outcome = outcomeOf(error);
    }
}

}  // namespace ovra::extra
