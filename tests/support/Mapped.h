#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace ovra::test {

/// The lines on the process's mapped memory that contain `part`, such as the name of a library.
inline std::vector<std::string> mapped(std::string const& part) {
    std::ifstream maps("/proc/self/maps");
    std::vector<std::string> result;
    for (std::string line; std::getline(maps, line);) {
        if (line.find(part) != std::string::npos) {
            result.push_back(line);
        }
    }
    return result;
}

}  // namespace ovra::test
