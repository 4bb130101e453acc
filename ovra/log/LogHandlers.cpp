#include <ovra/log/LogHandlers.h>

#include <syslog.h>

#include <iostream>
#include <string>

#include <ovra/log/internal/VerbatimScope.h>

namespace ovra::log {

namespace {

int systemLogPriority(LogLevel level) {
    switch (level) {
        case CRITICAL:
            return LOG_CRIT;
        case ERROR:
            return LOG_ERR;
        case DEBUG:
            return LOG_DEBUG;
        case DISABLED:
        case WARNING:
        case INFO:
        case VERBOSE:
            break;
    }
    return LOG_INFO;
}

}  // namespace

void handleLogMessageEInkOrLinux(char const* line, LogLevel level, std::mutex& mutex) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (VerbatimScope::isVerbatim()) {
        syslog(systemLogPriority(level), "%s", line);
        return;
    }
    // Callers rely on the system log's own formatting of what is left in the line.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    syslog(systemLogPriority(level), line);
#pragma GCC diagnostic pop
}

void PlatformLogHandler::handleLogMessage(char const* line, LogLevel level) {
    handleLogMessageEInkOrLinux(line, level, mutex);
}

void StandardStreamLogHandler::handleLogMessage(char const* line, LogLevel level) {
    bool const urgent = level == CRITICAL || level == ERROR;
    std::ostream& stream = urgent ? std::cerr : std::cout;
    std::lock_guard<std::mutex> const lock(mutex);
    stream << line << std::endl;
}

FileLogHandler::FileLogHandler(char const* path) : logFile(std::string(path)) {
    if (logFile.IsDirectory()) {
        logFile = logFile.Open("ovra.log");
    }
    stream = logFile.CreateOutputStream(std::ios_base::out);
}

FileLogHandler::~FileLogHandler() = default;

void FileLogHandler::handleLogMessage(char const* line, LogLevel) {
    if (!stream) {
        return;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    *stream << line << std::endl;
}

}  // namespace ovra::log
