#include "WatchLog.h"

#include <stdexcept>

#include <ovra/fs/FileHandle.h>
#include <ovra/log/Log.h>

#include "CrashLines.h"
#include "Messages.h"
#include "Quote.h"

namespace manifest {

namespace extra = ovra::extra;
namespace log = ovra::log;
using ovra::fs::FileHandle;

namespace {

constexpr std::size_t RECENT_LINES = 64;
constexpr std::size_t RECENT_BYTES = 240;

// In a directory, the sink uses this name, too.
std::string logFile(WatchOptions const& options) {
    FileHandle const named(options.log);
    return named.IsDirectory() ? named.Open("ovra.log").Path().Path() : options.log;
}

std::string crashFile(WatchOptions const& options) {
    return options.log.empty() ? "" : logFile(options) + ".crash";
}

}  // namespace

WatchLog::WatchLog(WatchOptions const& options)
    : recent(std::make_shared<extra::RecentLinesLogHandler>(RECENT_LINES, RECENT_BYTES)) {
    if (!options.log.empty()) {
        extra::RotatingFileOptions rotation;
        rotation.maxBytes = options.maxBytes;
        rotation.generations = options.keep;
        file = std::make_shared<extra::RotatingFileLogHandler>(options.log, rotation);
        if (!file->reopen()) {
            throw std::runtime_error(quoted(logFile(options)) + ": cannot be written");
        }
        log::addLogHandler(file, "file");
    }
    log::addLogHandler(recent, "recent");
    // At INFO the library would log the states of each task as well.
    log::setLogLevel(log::WARNING);
    leaveLinesOnCrash(recent, crashFile(options));
}

void WatchLog::reopen() const {
    if (file && !file->reopen()) {
        complain("the log file cannot be opened: the old one stays open");
    }
}

void WatchLog::writeRecentLines(int descriptor) const {
    recent->writeTo(descriptor);
}

std::vector<std::string> ownFiles(WatchOptions const& options) {
    std::vector<std::string> result = {options.manifest};
    if (!options.status.empty()) {
        result.push_back(options.status);
        result.push_back(options.status + ".lock");
    }
    if (!options.log.empty()) {
        std::string const name = logFile(options);
        result.push_back(name);
        result.push_back(crashFile(options));
        for (unsigned int number = 1; number <= options.keep + 1; ++number) {
            result.push_back(name + '.' + std::to_string(number));
        }
    }
    return result;
}

}  // namespace manifest
