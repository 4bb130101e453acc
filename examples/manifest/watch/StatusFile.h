#pragma once

#include <string>

#include <ovra/extra/LockFile.h>
#include <ovra/extra/Outcome.h>

#include "Findings.h"
#include "WatchStatus.h"

namespace manifest {

/// The file that holds a `WatchStatus`, for one process at a time. Used from one thread at a time.
class StatusFile {
public:
    /// Reads what an earlier run left; its findings go to `findings`. A file that is damaged counts
    /// as none, and is complained of. An empty path: nothing is kept. Throws `std::runtime_error`
    /// if another process uses the file.
    StatusFile(std::string const& statusPath, Findings& findings);

    /// What an earlier run left, apart from its findings.
    WatchStatus const& earlier() const;

    /// Replaces the file. Complains of a failure once, until it changes.
    void save(WatchStatus const& status, Findings const& findings);

private:
    void load(Findings& findings);

    std::string const path;
    ovra::extra::LockFile lock;
    WatchStatus loaded;
    ovra::extra::Outcome lastOutcome = ovra::extra::Outcome::DONE;
};

}  // namespace manifest
