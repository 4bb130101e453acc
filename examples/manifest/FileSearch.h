#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Interrupt.h"
#include "Progress.h"

namespace manifest {

struct FoundFile {
    std::string path;
    std::int64_t sizeBytes;
};

/// Finds the regular files below directories.
///
/// Links below a directory are neither followed nor listed, so a cycle of links does no harm; a
/// directory that is itself named through a link is entered. A directory is read once, whichever
/// way it is reached first. What cannot be read is reported and left out.
class FileSearch {
public:
    /// `shown`, which may be null, shows how many files were found.
    explicit FileSearch(Interrupt const& ctrlC, Progress* shown = nullptr);

    /// Leaves out the entry at `path`, whichever way the scan reaches its directory.
    void leaveOut(std::string const& path);

    /// Leaves out the files whose paths `isKnown`.
    void leaveOutIf(std::function<bool(std::string const& path)> isKnown);

    /// Adds the files below `directory`. Their paths begin with `directory` as it is spelt. Stops
    /// early on Ctrl-C.
    void addFilesBelow(std::string const& directory);

    /// What was found, sorted by the bytes of the paths.
    std::vector<FoundFile> sortedFiles();

    /// Whether everything could be read.
    bool isComplete() const;

private:
    struct LeftOut {
        dev_t device;
        ino_t inode;  // With `device`: the directory that holds the entry.
        std::string name;
    };

    void readDirectory(std::string const& directory, std::vector<std::string>& pending);
    void addEntry(std::string const& path, std::vector<std::string>& pending);
    bool isLeftOut(std::string const& directory, std::string const& name) const;
    void failed(std::string const& path, std::string const& reason);

    Interrupt const& interrupt;
    Progress* const progress;
    std::vector<LeftOut> leftOut;
    std::function<bool(std::string const&)> known;  // May be empty.
    std::set<std::pair<dev_t, ino_t>> visited;
    std::vector<FoundFile> files;
    bool complete = true;
};

}  // namespace manifest
