#include <ovra/extra/internal/Generations.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <ovra/extra/internal/Decimal.h>

namespace ovra::extra {

namespace {

// A dot, the number and the terminator.
constexpr std::size_t MOST_SUFFIX = 1 + MOST_DIGITS + 1;

}  // namespace

Generations::Generations(std::string logPath, unsigned int most)
    : path(std::move(logPath)),
      count(most),
      first(new char[path.size() + MOST_SUFFIX]),
      second(new char[path.size() + MOST_SUFFIX]) {}

bool Generations::moveUp() {
    if (count == 0) {
        return ::unlink(path.c_str()) == 0;
    }
    // The first free name ends the search. The oldest file is moved aside first, and removed only
    // when the log itself has been moved: moving the log is what may well fail. A single generation
    // is just replaced.
    unsigned int free = 1;
    struct stat status;
    for (; count > 1 && free <= count; ++free) {
        if (::lstat(name(free, first.get()), &status) != 0) {
            if (errno != ENOENT) {
                return false;  // Nobody knows whether the name is free.
            }
            break;
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
    // To rename one link of a file to another link of it does nothing.
    return !isLinked() || ::unlink(path.c_str()) == 0;
}

char const* Generations::name(unsigned int generation, char* buffer) const {
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    if (generation > 0) {
        buffer[path.size()] = '.';
        *writeDecimal(buffer + path.size() + 1, generation) = '\0';
    }
    return buffer;
}

bool Generations::isLinked() const {
    struct stat log;
    struct stat youngest;
    return ::lstat(path.c_str(), &log) == 0 && ::lstat(name(1, first.get()), &youngest) == 0 &&
           log.st_dev == youngest.st_dev && log.st_ino == youngest.st_ino;
}

bool Generations::move(unsigned int from, unsigned int to) {
    return std::rename(name(from, first.get()), name(to, second.get())) == 0;
}

}  // namespace ovra::extra
