#pragma once

#include <memory>
#include <string>

namespace ovra::extra {

/// The older files of a log: of "x" these are "x.1", the youngest, to "x.N".
///
/// *Threads*: Not thread-safe. A process that is killed while it moves the files can leave a gap
/// between them; the next move fills the gap.
class Generations {
public:
    /// Keeps at most `count` older files. Allocates all its memory here.
    Generations(std::string path, unsigned int count);

    /// Moves each older file up by one, up to the first gap, and the log itself to "x.1". If that
    /// leaves one file too many, removes the oldest. If no older files are kept, removes the log.
    /// Returns whether the log was moved or removed; if not, all files have their old names again,
    /// as far as the system allows.
    bool moveUp();

private:
    // The returned name is valid until the next call with the same buffer.
    char const* name(unsigned int generation, char* buffer) const;
    bool move(unsigned int from, unsigned int to);
    // Whether the log and the youngest older file are links of one file.
    bool isLinked() const;

    std::string const path;
    unsigned int const count;
    std::unique_ptr<char[]> const first;
    std::unique_ptr<char[]> const second;
};

}  // namespace ovra::extra
