#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace manifest {

class Arguments;

/// What the command line asks of `ovra-manifest watch`.
struct WatchOptions {
    std::string manifest;                ///< Whose files are watched.
    std::chrono::milliseconds period{};  ///< From the start of one round to that of the next.
    std::uint64_t rounds = 0;            ///< How many rounds; 0: until a signal ends the program.

    std::vector<std::string> newBelow;  ///< Files below here must be listed.
    bool listedOnly = false;            ///< Without looking for files that are not listed.

    std::string log;             ///< A file or directory for the log; may be empty.
    std::uint64_t maxBytes = 0;  ///< Of the log file; 0: no limit.
    unsigned int keep = 1;       ///< How many older log files stay.
    std::string status;          ///< The status file; may be empty.

    unsigned int jobs = 1;             ///< Threads that hash.
    std::uint64_t bytesPerSecond = 0;  ///< That all of them read; 0: no limit.
    bool eager = false;                ///< Hash without giving way to other programs.

    bool help = false;  ///< Show the help, and nothing else.
};

/// Parses the arguments after "watch". Throws `UsageError`.
WatchOptions parseWatchOptions(Arguments& arguments);

}  // namespace manifest
