#include <ovra/extra/internal/RotatingFile.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <utility>

#include <ovra/extra/internal/Decimal.h>
#include <ovra/extra/internal/Descriptor.h>

namespace ovra::extra {

namespace {

constexpr std::int64_t NANOSECONDS_OF_A_MILLISECOND = 1000000;
constexpr std::int64_t NANOSECONDS_OF_A_SECOND = 1000 * NANOSECONDS_OF_A_MILLISECOND;

std::string directoryOf(std::string const& path) {
    std::size_t const separator = path.rfind('/');
    return separator == std::string::npos ? "." : path.substr(0, separator + 1);
}

// Advances in steps of some milliseconds, and is cheap.
std::int64_t coarseTime() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * NANOSECONDS_OF_A_SECOND + now.tv_nsec;
}

}  // namespace

RotatingFile::RotatingFile(std::string logPath, RotatingFileOptions const& chosen)
    : options(chosen),
      path(std::move(logPath)),
      directory(directoryOf(path)),
      generations(path, options.generations) {
    open();
}

void RotatingFile::write(std::string_view line, log::LogLevel level) {
    std::lock_guard<ForkSafeLock> const guard(lock);
    if (reopenIsRequested.load() && reopenIsRequested.exchange(false) && !open()) {
        reopenIsRequested = true;
    }
    bool const isReady = file.isOpen() || open();
    if (!isReady || (lostUnreported > 0 && !reportLost()) || !append(line)) {
        ++lost;
        ++lostUnreported;
    } else if (options.syncLevel != log::DISABLED && level <= options.syncLevel && !syncOpen()) {
        syncHasFailed = true;
    }
}

bool RotatingFile::reopen() {
    std::lock_guard<ForkSafeLock> const guard(lock);
    return open();
}

bool RotatingFile::sync() {
    std::lock_guard<ForkSafeLock> const guard(lock);
    if (!file.isOpen()) {
        return false;
    }
    // Where the files are that were left, only the file system knows.
    bool const isLeftSynced = !hasLeftFiles || file.syncFileSystem();
    hasLeftFiles = hasLeftFiles && !isLeftSynced;
    bool const isOpenSynced = syncOpen();
    return !std::exchange(syncHasFailed, false) && isOpenSynced && isLeftSynced;
}

std::uint64_t RotatingFile::lostLines() {
    std::lock_guard<ForkSafeLock> const guard(lock);
    return lost;
}

bool RotatingFile::open() {
    LogFile opened = LogFile::open(path.c_str());
    if (!opened.isOpen()) {
        return false;
    }
    take(std::move(opened));
    return true;
}

void RotatingFile::take(LogFile opened) {
    hasLeftFiles = hasLeftFiles || file.isOpen();
    file = std::move(opened);
    entryIsSynced = false;
    lookedAt = -1;
}

bool RotatingFile::append(std::string_view line) {
    std::size_t const length =
        (options.stampTimes ? TIME_STAMP_LENGTH : 0) + line.size() + std::strlen("\n");
    if (options.maxBytes > 0) {
        makeRoom(length);
    }
    if (file.isTorn()) {
        file.look();  // Somebody else may have ended that line.
    }
    char buffer[1024];
    char* end = buffer;
    if (file.isTorn()) {
        *end++ = '\n';
    }
    if (options.stampTimes) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        timeStamps.write(end, now.tv_sec,
                         static_cast<unsigned int>(now.tv_nsec / NANOSECONDS_OF_A_MILLISECOND));
        end += TIME_STAMP_LENGTH;
    }
    auto const before = static_cast<std::size_t>(end - buffer);
    if (before + line.size() < sizeof buffer) {
        // Copying takes less time than a system call with several pieces.
        std::memcpy(end, line.data(), line.size());
        end[line.size()] = '\n';
        iovec whole = {buffer, before + line.size() + 1};
        return file.append(&whole, 1);
    }
    char newline = '\n';
    iovec pieces[] = {
        {buffer, before}, {const_cast<char*>(line.data()), line.size()}, {&newline, 1}};
    return file.append(pieces, 3);
}

bool RotatingFile::reportLost() {
    // What kept the lines here from the file may have torn a line of somebody else.
    file.look();
    char text[64] = "[ovra:WARNING] ";
    char* end = writeDecimal(text + std::strlen(text), lostUnreported);
    constexpr std::string_view REST = " lines lost";
    std::memcpy(end, REST.data(), REST.size());
    end += REST.size();
    if (!append(std::string_view(text, static_cast<std::size_t>(end - text)))) {
        return false;
    }
    lostUnreported = 0;
    return true;
}

// Makes `length` bytes more fit under the cap. Where that cannot be done, the open file is kept.
//
// Asking for the size costs half as much as writing a line. So the last size, plus what was written
// here, is trusted until the clock moves on or a quarter of the space that was left is used. Then
// the system is asked again, because others may write to the file, move it or empty it.
void RotatingFile::makeRoom(std::size_t length) {
    constexpr int MOST_FILES = 8;  // As many as others may fill and move away meanwhile.
    std::int64_t const now = coarseTime();
    if (now == lookedAt && sizeWith(length) <= trustedSize) {
        return;
    }
    for (int files = 0; files < MOST_FILES; ++files) {
        bool const hasName = file.look();
        bool const fits = file.size() == 0 || sizeWith(length) <= options.maxBytes;
        if (hasName && fits) {
            break;
        }
        if (!(hasName ? moveAway() : open())) {
            break;
        }
    }
    lookedAt = now;
    trustedSize = file.size();
    if (trustedSize < options.maxBytes) {
        trustedSize += (options.maxBytes - trustedSize) / 4;
    }
}

// The size of the file with a line of `length` bytes, and with the newline that ends a torn one.
std::uint64_t RotatingFile::sizeWith(std::size_t length) const {
    return file.size() + (file.isTorn() ? 1 : 0) + length;
}

// Returns whether `file` is another file now.
bool RotatingFile::moveAway() {
    // A descriptor of its own to lock: a forked process may share the open one, and its lock.
    LogFile named = LogFile::open(path.c_str());
    if (!named.isOpen()) {
        return false;
    }
    if (!named.isSameAs(file)) {
        take(std::move(named));  // Another process has moved it.
        return true;
    }
    if (!named.tryLock()) {
        return false;  // Another process is about to move it.
    }
    bool const isMoved = !named.isAt(path.c_str()) || generations.moveUp();
    named.unlock();  // Otherwise the lock would last as long as a forked process has the file open.
    return isMoved && open();
}

bool RotatingFile::syncOpen() {
    if (!file.sync()) {
        return false;
    }
    if (!entryIsSynced) {
        Descriptor const opened = openBelow(AT_FDCWD, directory.c_str(), O_RDONLY | O_DIRECTORY);
        entryIsSynced = ::fsync(opened.get()) == 0;
    }
    return entryIsSynced;
}

}  // namespace ovra::extra
