#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "watch/WatchOptions.h"

namespace manifest {

/// What the command line asks for.
struct Options {
    enum Command { CREATE, CHECK, WATCH, HELP, VERSION };

    Command command = HELP;
    std::vector<std::string> directories;  ///< To make a manifest of.
    std::string manifest;                  ///< To check; "-" is standard input.
    std::string output;                    ///< Where the manifest goes; empty: standard output.
    std::string first;                     ///< What lies below is hashed first; may be empty.
    std::string log;                       ///< A file or directory for the log; may be empty.
    bool verbose = false;                  ///< Log to the standard streams.
    unsigned int jobs = 0;                 ///< Worker threads; 0: unknown, the shared executor.

    // How check reports, as for sha256sum.
    bool quiet = false;          ///< Only what is not well.
    bool status = false;         ///< Nothing: the exit status says it.
    bool strict = false;         ///< A line that is no entry is a failure.
    bool ignoreMissing = false;  ///< A file that does not exist is no failure.
    std::string newBelow;        ///< Files below here must be listed; may be empty.

    WatchOptions watch;  ///< The options of watch.
};

/// The program was called in a way that cannot work; `what()` is one line that says why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Parses the arguments, without the program's name. Throws `UsageError`.
Options parseOptions(std::vector<std::string> const& arguments);

extern char const HELP_TEXT[];

}  // namespace manifest
