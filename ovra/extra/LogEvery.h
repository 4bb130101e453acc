#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>

#include <ovra/Export.h>
#include <ovra/log/Log.h>

/// Logs as `ovra::log::log(level, tag, format, ...)` does, but from this place in the source at
/// most once in `milliseconds`. For messages that would otherwise flood the log.
///
/// The first line is logged at once. Lines that follow within `milliseconds` are held back. The
/// first line after that period reports them: it ends in " (and N more like it)". If no line
/// follows, nothing says how many were held back. Lines that the global level drops neither count
/// nor begin a period. `milliseconds` of 0 or less hold nothing back. The arguments are evaluated
/// in any case.
///
///     OVRA_LOG_EVERY(10000, ovra::log::WARNING, "net", "Cannot reach %s.", server);
///
/// *Place*: each place in the source counts by itself, and each instantiation of a template does.
/// An inline function in a header counts once for the whole process; compiled with hidden
/// visibility, it counts once for each shared object that contains it.
///
/// *Threads*: Thread-safe, takes no lock of its own. Of several lines at the same moment one goes
/// out.
#define OVRA_LOG_EVERY(milliseconds, level, tag, /* format, */...)     \
    do {                                                               \
        static ::ovra::extra::LogEvery ovraLogEvery;                   \
        ovraLogEvery.log((milliseconds), (level), (tag), __VA_ARGS__); \
    } while (false)

namespace ovra::extra {

/// What `OVRA_LOG_EVERY` keeps for each place that uses it.
///
/// *Threads*: Thread-safe. *Failure*: as `ovra::log::log`: a message that cannot be formatted is
/// dropped in silence; it begins a period all the same. The next line that is logged also reports
/// the lines that this message would have reported. `errno` is kept.
class LogEvery {
public:
    constexpr LogEvery() = default;

    /// Logs, unless the last line went out less than `milliseconds` ago.
    OVRA_PRINTF(5, 6)
    void log(std::int64_t milliseconds, log::LogLevel level, char const* tag, char const* format,
             ...) {
        log::LogLevel const threshold = log::getLogLevel();
        if (threshold == log::DISABLED || threshold < level) {
            return;
        }
        if (std::optional<unsigned long> const count = begin(milliseconds)) {
            std::va_list arguments;
            va_start(arguments, format);
            if (!logFormatted(level, tag, *count, format, arguments)) {
                held[period.load() & 1].fetch_add(*count);  // The next line reports them.
            }
            va_end(arguments);
        }
    }

private:
    static std::int64_t now() {
        using std::chrono::milliseconds;
        auto const time = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<milliseconds>(time).count();
    }

    // Within a period, counts one more line as held back and returns nothing. Otherwise begins a
    // period and returns how many lines the last one held back.
    std::optional<unsigned long> begin(std::int64_t milliseconds) {
        constexpr std::int64_t NEVER = std::numeric_limits<std::int64_t>::max() / 2;
        std::int64_t const time = now();
        std::int64_t const length = std::max(milliseconds, std::int64_t{0});
        std::int64_t const end = length < NEVER - time ? time + length : NEVER;
        std::int64_t seen = period.load();
        while (length == 0 || time >= seen >> 1) {
            std::int64_t const next = end * 2 + (~seen & 1);
            if (period.compare_exchange_weak(seen, next)) {
                return held[seen & 1].exchange(0);
            }
        }
        held[seen & 1].fetch_add(1);
        return std::nullopt;
    }

    // Returns whether the message could be formatted.
    static OVRA_PRINTF(4, 0) bool logFormatted(log::LogLevel level, char const* tag,
                                               unsigned long heldBack, char const* format,
                                               std::va_list arguments) {
        struct Free {
            void operator()(char* text) const { std::free(text); }
        };
        int const error = errno;
        char* formatted = nullptr;
        bool const isFormatted = vasprintf(&formatted, format, arguments) != -1;
        std::unique_ptr<char, Free> const message(isFormatted ? formatted : nullptr);
        if (message && heldBack > 0) {
            log::log(level, tag, "%s (and %lu more like it)", message.get(), heldBack);
        } else if (message) {
            log::log(level, tag, "%s", message.get());
        }
        errno = error;
        return isFormatted;
    }

    // Twice the time at which the current period ends, plus the index of that period's counter: 0
    // and 1 in turn.
    std::atomic<std::int64_t> period{std::numeric_limits<std::int64_t>::min()};
    std::atomic<unsigned long> held[2] = {};
};

}  // namespace ovra::extra
