#include "CheckTask.h"

#include <exception>

#include "Background.h"

namespace manifest {

namespace extra = ovra::extra;
using extra::Outcome;

CheckTask::Owner::~Owner() = default;

CheckTask::CheckTask(ListedFiles const& listed, std::size_t fileNumber, Findings& findingsToFill,
                     Pace& readingPace, bool isEager, Owner& checkOwner)
    : files(listed),
      number(fileNumber),
      findings(findingsToFill),
      pace(readingPace),
      eager(isEager),
      owner(checkOwner),
      path(listed.path(fileNumber)) {}

ovra::concurrent::Executable::Result CheckTask::execute() {
    if (!eager) {
        giveWay();
    }
    try {
        FileHash const hash = hashFile(path, pace);
        if (hash.outcome == Outcome::DONE && hash.digest.empty()) {
            return ABORTED;
        }
        record(hash);
    } catch (std::exception const& error) {  // Such as: no memory.
        findings.add(path, {Finding::UNREADABLE, error.what()});
    }
    owner.checked(number);
    return SUCCESS;
}

char const* CheckTask::name() const {
    return path.c_str();
}

void CheckTask::record(FileHash const& hash) {
    if (hash.outcome == Outcome::MISSING) {
        findings.add(path, {Finding::MISSING, {}});
    } else if (hash.outcome != Outcome::DONE) {
        findings.add(path, {Finding::UNREADABLE, extra::outcomeName(hash.outcome)});
    } else if (!files.matches(number, hash.digest)) {
        findings.add(path, {Finding::CHANGED, hash.digest});
    } else {
        findings.setWell(path);
    }
}

}  // namespace manifest
