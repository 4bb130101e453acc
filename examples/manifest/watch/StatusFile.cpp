#include "StatusFile.h"

#include <istream>
#include <optional>
#include <stdexcept>
#include <string>

#include <ovra/extra/ReplaceFile.h>
#include <ovra/fs/FileHandle.h>

#include "Messages.h"
#include "Quote.h"

namespace manifest {

namespace extra = ovra::extra;
using extra::Outcome;
using ovra::fs::FileHandle;

StatusFile::StatusFile(std::string const& statusPath, Findings& findings)
    : path(statusPath), lock(statusPath + ".lock") {
    Outcome const outcome = path.empty() ? Outcome::DONE : lock.tryLock();
    if (outcome == Outcome::BUSY) {
        throw std::runtime_error(quoted(path) + ": another process watches with this status file");
    }
    if (outcome != Outcome::DONE) {
        throw std::runtime_error(quoted(path + ".lock") + ": cannot be locked (" +
                                 extra::outcomeName(outcome) + ')');
    }
    load(findings);
}

void StatusFile::load(Findings& findings) {
    FileHandle const file(path);
    if (path.empty() || !file.Exists()) {
        return;
    }
    std::string text;
    if (file.IsFile()) {
        auto const stream = file.CreateInputStream(std::ios_base::binary);
        std::getline(*stream, text, '\0');  // All of it: no JSON has a NUL byte.
    }
    auto const restore = [&findings](std::string const& name, Finding const& finding) {
        findings.restore(name, finding);
    };
    std::optional<WatchStatus> const status = fromJson(text, restore);
    if (!status) {
        findings.forgetAll();
        complain(quoted(path) + ": is no status file, and will be replaced");
        return;
    }
    loaded = *status;
}

WatchStatus const& StatusFile::earlier() const {
    return loaded;
}

void StatusFile::save(WatchStatus const& status, Findings const& findings) {
    if (path.empty()) {
        return;
    }
    Outcome const outcome = extra::replaceFile(path, toJson(status, findings));
    if (outcome != lastOutcome && outcome != Outcome::DONE) {
        complain(quoted(path) + ": cannot be written (" + extra::outcomeName(outcome) + ')');
    }
    lastOutcome = outcome;
}

}  // namespace manifest
