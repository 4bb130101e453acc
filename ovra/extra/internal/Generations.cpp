#include <ovra/extra/internal/Generations.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace ovra::extra {

Generations::Generations(std::string logPath, unsigned int most)
    : path(std::move(logPath)),
      count(most),
      nameSize(path.size() + 2 + std::numeric_limits<unsigned int>::digits10 + 1),
      first(new char[nameSize + 1]),
      second(new char[nameSize + 1]) {}

bool Generations::moveUp() {
    if (count == 0) {
        return ::unlink(path.c_str()) == 0;
    }
    // The first free name ends the search. The oldest file is moved aside first, and removed only
    // when the log itself has been moved: moving the log is what may well fail. A single generation
    // is just replaced.
    unsigned int free = 1;
    if (count > 1) {
        while (free <= count && exists(free)) {
            ++free;
        }
    }
    for (unsigned int to = free; to > 0; --to) {
        if (!move(to - 1, to)) {
            // Move back, as far as that works: no file may overwrite one that could not be moved
            // back itself.
            unsigned int back = to;
            while (back < free && move(back + 1, back)) {
                ++back;
            }
            return false;
        }
    }
    if (free > count) {
        ::unlink(name(free, first.get()));
    }
    return true;
}

char const* Generations::name(unsigned int generation, char* buffer) const {
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    if (generation > 0) {
        char* const end = buffer + nameSize;
        buffer[path.size()] = '.';
        *std::to_chars(buffer + path.size() + 1, end, std::uint64_t{generation}).ptr = '\0';
    }
    return buffer;
}

bool Generations::exists(unsigned int generation) {
    struct stat status;
    return ::lstat(name(generation, first.get()), &status) == 0 || errno != ENOENT;
}

bool Generations::move(unsigned int from, unsigned int to) {
    return std::rename(name(from, first.get()), name(to, second.get())) == 0;
}

}  // namespace ovra::extra
