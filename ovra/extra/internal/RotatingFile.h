#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <ovra/extra/RotatingFileLogHandler.h>
#include <ovra/extra/internal/ForkSafeLock.h>
#include <ovra/extra/internal/Generations.h>
#include <ovra/extra/internal/LogFile.h>
#include <ovra/extra/internal/TimeStamp.h>
#include <ovra/log/Log.h>

namespace ovra::extra {

/// The work behind `RotatingFileLogHandler`.
///
/// A forked process finds the lock open, whatever another thread was doing. So the data must be
/// usable in every intermediate state.
class RotatingFile {
public:
    RotatingFile(std::string path, RotatingFileOptions const& options);

    void write(std::string_view line, log::LogLevel level);
    bool reopen();
    void requestReopen() { reopenIsRequested = true; }
    bool sync();
    std::uint64_t lostLines();

private:
    // All of these are called with `lock` held.
    bool open();
    void take(LogFile opened);
    bool append(std::string_view line);
    bool reportLost();
    void makeRoom(std::size_t length);
    std::uint64_t sizeWith(std::size_t length) const;
    bool moveAway();
    bool syncOpen();

    RotatingFileOptions const options;
    std::string const path;
    std::string const directory;
    std::atomic<bool> reopenIsRequested{false};

    ForkSafeLock lock;
    Generations generations;
    LogFile file;
    TimeStamps timeStamps;
    bool entryIsSynced = false;
    bool hasLeftFiles = false;   // Whether there are any that sync() has not synced.
    bool syncHasFailed = false;  // Since the last sync().
    std::uint64_t lost = 0;
    std::uint64_t lostUnreported = 0;
    // The known size is trusted at the time `lookedAt`, as long as it is at most `trustedSize`.
    std::int64_t lookedAt = -1;
    std::uint64_t trustedSize = 0;
};

}  // namespace ovra::extra
