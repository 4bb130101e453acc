#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <ovra/extra/Outcome.h>

#include "Pace.h"

namespace manifest {

/// Finds the regular files below directories, one after the other, without keeping them. Follows no
/// link below a directory.
class TreeSearch {
public:
    using OnFile = std::function<void(std::string const& path)>;
    using OnFailure =
        std::function<void(std::string const& directory, ovra::extra::Outcome outcome)>;

    /// `failed` is called for a directory that cannot be read; its path ends with a separator.
    TreeSearch(Pace& searchPace, OnFile found, OnFailure failed);

    /// Leaves out the entry at `path`, whichever way the search reaches its directory.
    void leaveOut(std::string const& path);

    /// `directory` is spelt so that the name of an entry can follow; "" is the current directory.
    /// False if not everything was seen: a directory failed, or the pace was stopped.
    bool search(std::string const& directory);

private:
    struct LeftOut {
        dev_t device;
        ino_t inode;  // With `device`: the directory that holds the entry.
        std::string name;
    };

    bool readDirectory(std::string const& directory, bool isFirst);
    void addEntry(std::string const& directory, dirent const& entry);
    bool isLeftOut(std::string const& directory, std::string const& name) const;

    Pace& pace;
    OnFile const onFile;
    OnFailure const onFailure;
    std::vector<LeftOut> leftOut;
    std::vector<std::string> pending;
};

}  // namespace manifest
