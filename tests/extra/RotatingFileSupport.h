#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <ovra/extra/RotatingFileLogHandler.h>
#include <tests/log/LogTestSupport.h>

namespace ovra::extra {

using log::test::contentOf;
using log::test::linesOf;
using log::test::writeFile;
using ovra::test::ScratchDirectory;

/// Options that name what they change, for lines without the time.
inline RotatingFileOptions plain(std::uint64_t maxBytes = 0, unsigned int generations = 1) {
    RotatingFileOptions options;
    options.maxBytes = maxBytes;
    options.generations = generations;
    options.stampTimes = false;
    return options;
}

/// Hands the sink a line, at a level that makes no difference unless one is given.
inline void put(log::LogHandler& sink, std::string const& line, log::LogLevel level = log::INFO) {
    sink.handleLogMessage(line.c_str(), level);
}

/// The line without the time before it; empty if it does not begin with one.
inline std::string withoutStamp(std::string const& line) {
    std::string const shape = "dddd-dd-ddTdd:dd:dd.dddZ ";
    for (std::size_t index = 0; index < shape.size(); ++index) {
        char const found = index < line.size() ? line[index] : '\0';
        if (shape[index] == 'd' ? found < '0' || found > '9' : found != shape[index]) {
            return std::string();
        }
    }
    return line.substr(shape.size());
}

inline bool exists(std::string const& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

/// The log and its older files, the oldest first, whatever gaps there are.
inline std::vector<std::string> filesOf(std::string const& path) {
    std::vector<std::string> files;
    for (int generation = 99; generation > 0; --generation) {
        if (exists(path + "." + std::to_string(generation))) {
            files.push_back(path + "." + std::to_string(generation));
        }
    }
    files.push_back(path);
    return files;
}

/// All lines in the log and its older files, the oldest first.
inline std::vector<std::string> allLinesOf(std::string const& path) {
    std::vector<std::string> lines;
    for (std::string const& file : filesOf(path)) {
        for (std::string const& line : linesOf(contentOf(file))) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace ovra::extra
