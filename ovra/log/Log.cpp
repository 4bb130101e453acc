#include <ovra/log/Log.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include <cxxabi.h>

#include <ovra/log/LogHandlers.h>
#include <ovra/log/internal/VerbatimScope.h>

namespace ovra::log {

namespace {

static_assert(std::atomic<LogLevel>::is_always_lock_free);  // Read for every message.
std::atomic<LogLevel> globalLevel{ERROR};
std::atomic<bool> depsDebuggable{false};

// Both live from load to unload.
PlatformLogHandler platformLogHandler;
std::unordered_map<std::string, std::shared_ptr<LogHandler>> handlerRegistry(10);

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, Free>;

OVRA_PRINTF(1, 0) CText formatMessage(char const* format, std::va_list arguments) {
    char* message = nullptr;
    return CText(vasprintf(&message, format, arguments) != -1 ? message : nullptr);
}

CText formatLine(char const* tag, LogLevel level, char const* message) {
    char* line = nullptr;
    return CText(
        asprintf(&line, "[%s:%s] %s", tag, logLevelToName(level), message) != -1 ? line : nullptr);
}

// Exempt from the sanitizer's check of references: forced unwinding has no exception object.
__attribute__((noinline, no_sanitize("null"))) void deliver(char const* line, LogLevel level) {
    try {
        platformLogHandler.PlatformLogHandler::handleLogMessage(line, level);
        for (auto const& entry : handlerRegistry) {
            if (entry.second) {
                entry.second->handleLogMessage(line, level);
            }
        }
    } catch (abi::__forced_unwind&) {
        throw;  // The thread is being cancelled or exits: do not stop it.
    } catch (...) {
        // A sink's failure does not reach the caller.
    }
}

class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ErrnoKeeper(ErrnoKeeper const&) = delete;
    ErrnoKeeper& operator=(ErrnoKeeper const&) = delete;
    ~ErrnoKeeper() { errno = kept; }

private:
    int const kept = errno;
};

bool isDelivered(LogLevel level) {
    LogLevel const threshold = globalLevel.load(std::memory_order_relaxed);
    return threshold != DISABLED && threshold >= level;
}

// A function apart from its callers, so that a message that is not delivered costs only the test of
// its level.
__attribute__((noinline))
OVRA_PRINTF(3, 0) void logFormatted(LogLevel level, char const* tag, char const* format,
                                    std::va_list arguments, bool isVerbatim) {
    ErrnoKeeper const errnoKeeper;
    CText message = formatMessage(format, arguments);
    if (!message) {
        return;
    }
    CText const line = formatLine(tag != nullptr ? tag : "(null)", level, message.get());
    message.reset();
    if (line) {
        VerbatimScope const scope(isVerbatim);
        deliver(line.get(), level);
    }
}

}  // namespace

LogHandler::~LogHandler() = default;

void log(LogLevel level, char const* tag, char const* format, ...) {
    if (!isDelivered(level)) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    logFormatted(level, tag, format, arguments, false);
    va_end(arguments);
}

void logVerbatim(LogLevel level, char const* tag, char const* format, ...) {
    if (!isDelivered(level)) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    logFormatted(level, tag, format, arguments, true);
    va_end(arguments);
}

char const* logLevelToName(LogLevel level) {
    switch (level) {
        case DISABLED:
            return "DISABLED";
        case CRITICAL:
            return "CRITICAL";
        case ERROR:
            return "ERROR";
        case WARNING:
            return "WARNING";
        case INFO:
            return "INFO";
        case DEBUG:
            return "DEBUG";
        case VERBOSE:
            return "VERBOSE";
    }
    return "UNKNOWN";
}

void setLogLevel(LogLevel level) {
    globalLevel.store(level, std::memory_order_relaxed);
}

LogLevel getLogLevel() {
    return globalLevel.load(std::memory_order_relaxed);
}

void setDepsDebuggable(bool debuggable) {
    depsDebuggable.store(debuggable, std::memory_order_relaxed);
}

bool getDepsDebuggable() {
    return depsDebuggable.load(std::memory_order_relaxed);
}

std::shared_ptr<LogHandler> createLogHandler(LogHandlerType type, char const* name) {
    switch (type) {
        case FILE_HANDLER:
            return std::shared_ptr<LogHandler>(new FileLogHandler(name));
        case PLATFORM_HANDLER:
            return std::shared_ptr<LogHandler>(new PlatformLogHandler);
        case STANDARD_STREAM_HANDLER:
            return std::shared_ptr<LogHandler>(new StandardStreamLogHandler);
    }
    return nullptr;
}

void addLogHandler(LogHandlerType type, char const* name) {
    std::string key(name);
    if (type < FILE_HANDLER || type > STANDARD_STREAM_HANDLER) {
        return;
    }
    // Make the entry first: if there is no memory for it, no earlier log has been truncated yet.
    auto& entry = handlerRegistry[std::move(key)];
    entry = createLogHandler(type, name);
}

void addLogHandler(std::shared_ptr<LogHandler> handler, char const* name) {
    std::string key(name);
    if (handler) {
        handlerRegistry[std::move(key)] = std::move(handler);
    }
}

}  // namespace ovra::log
