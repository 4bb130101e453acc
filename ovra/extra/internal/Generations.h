#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace ovra::extra {

/// The older files of a log: of "x" these are "x.1", the youngest, to "x.N".
///
/// *Threads*: not thread-safe. A file that was left out, such as by a process that was killed while
/// it moved them, leaves a gap, which the next move fills.
class Generations {
public:
    /// Keeps at most `count` of them. Takes all its memory here.
    Generations(std::string path, unsigned int count);

    /// Moves each up by one, and the log itself to "x.1", or removes it if none are kept. What
    /// would be the last but one goes. Whether that was done; if not, all have the names that they
    /// had, as far as the system lets them.
    bool moveUp();

private:
    // The returned name is valid until the next call with the same buffer.
    char const* name(unsigned int generation, char* buffer) const;
    bool exists(unsigned int generation);
    bool move(unsigned int from, unsigned int to);

    std::string const path;
    unsigned int const count;
    std::size_t const nameSize;
    std::unique_ptr<char[]> const first;
    std::unique_ptr<char[]> const second;
};

}  // namespace ovra::extra
