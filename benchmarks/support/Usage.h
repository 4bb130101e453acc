#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace ovra::bench {

/// How often the threads of the process were switched from, by waiting or by force.
inline std::int64_t contextSwitches() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw + usage.ru_nivcsw;
}

/// A line of `/proc/self/<file>`, in KiB: `kiB("status", "VmHWM:")` is the peak so far.
inline double kiB(std::string const& file, std::string const& field) {
    std::ifstream lines("/proc/self/" + file);
    std::string word;
    while (lines >> word) {
        if (double found = 0; word == field && lines >> found) {
            return found;
        }
    }
    return 0;
}

}  // namespace ovra::bench
