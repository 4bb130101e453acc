#include "Rounds.h"

#include <ctime>
#include <exception>
#include <utility>

#include <ovra/extra/Outcome.h>

#include "Messages.h"
#include "TreeSearch.h"
#include "WatchLog.h"

namespace manifest {

namespace extra = ovra::extra;
using std::chrono::milliseconds;

namespace {

// At most so many files wait or are read at a time.
constexpr std::size_t MOST_UNDER_WAY = 64;
constexpr milliseconds PAUSE(10);
// A finding is saved soon, the progress of a round only now and then: each save is a few writes.
constexpr std::chrono::seconds SAVE_FINDINGS_AFTER(1);
constexpr std::chrono::minutes SAVE_ANYWAY_AFTER(5);

std::string now() {
    std::time_t const seconds = std::time(nullptr);
    std::tm parts = {};
    char text[32];
    gmtime_r(&seconds, &parts);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// "d" -> "d/"
std::string asPrefix(std::string const& directory) {
    return directory.back() == '/' ? directory : directory + '/';
}

}  // namespace

Rounds::Rounds(WatchOptions const& watchOptions,
               std::shared_ptr<ovra::concurrent::TaskExecutor> const& hashing,
               Findings& allFindings, StatusFile& file, Pace& readingPace, Ended whenEnded)
    : options(watchOptions),
      findings(allFindings),
      statusFile(file),
      pace(readingPace),
      ended(std::move(whenEnded)),
      group(hashing, MOST_UNDER_WAY),
      status(statusFile.earlier()),
      round(status.round) {
    status.manifest = options.manifest;
    savedVersion = findings.version();
    savedAt = Clock::now() - SAVE_FINDINGS_AFTER;
    if (options.listedOnly) {
        findings.forgetSearches();
    }
}

Rounds::~Rounds() = default;

void Rounds::run() {
    {
        std::lock_guard<std::mutex> const lock(mutex);
        if (++wanted > 1) {
            return;
        }
    }
    for (;;) {
        if (!pace.isStopped()) {
            runOne();
        }
        std::lock_guard<std::mutex> const lock(mutex);
        wanted = wanted > 1 && !pace.isStopped() ? 1 : 0;
        if (wanted == 0) {
            isIdle.notify_all();
            return;
        }
    }
}

bool Rounds::isAllWell() const {
    return trouble.empty() && findings.size() == 0;
}

bool Rounds::isUnderWay() const {
    std::lock_guard<std::mutex> const lock(mutex);
    return wanted > 0;
}

bool Rounds::waitForEnd(milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return isIdle.wait_for(lock, limit, [this] { return wanted == 0; });
}

std::string Rounds::progress() const {
    std::string const found = ", findings: " + std::to_string(findings.size());
    if (hasEnded) {
        return "round " + std::to_string(round) + " has ended" + found;
    }
    return "round " + std::to_string(round) + ": " + std::to_string(filesChecked) + " of " +
           std::to_string(filesListed) + " files checked" + found;
}

void Rounds::runOne() {
    std::string const started = now();
    round = status.round + 1;
    filesListed = filesChecked = 0;
    hasEnded = false;
    try {
        verify(started);
        save();  // The manifest's memory is free again: the text of many findings takes as much.
        trouble.clear();
    } catch (std::exception const& error) {
        if (!pace.isStopped() && trouble != error.what()) {
            complain(error.what());
        }
        trouble = error.what();
    }
    if (pace.isStopped()) {
        return;
    }
    hasEnded = true;  // First: who is notified may ask.
    ended(round, trouble.empty() ? summary() : trouble);
}

void Rounds::verify(std::string const& started) {
    ListedFiles const listed(options.manifest, pace);
    if (pace.isStopped()) {
        return;
    }
    filesListed = listed.size();
    checkAll(listed);
    bool const hasSeenAll = lookForNew(listed);
    if (!pace.isStopped()) {
        findings.endRound(listed, hasSeenAll);
        finish(listed, started);
    }
}

// Once the pace is stopped, returns when all that it has submitted has ended.
void Rounds::checkAll(ListedFiles const& listed) {
    std::size_t next = status.nextFile.empty() ? 0 : listed.numberOf(status.nextFile);
    filesChecked = next;
    try {
        for (; next < listed.size() && !pace.isStopped(); ++next) {
            submit(listed, next);
        }
    } catch (...) {
        drain(listed, next);
        throw;
    }
    drain(listed, next);
}

void Rounds::submit(ListedFiles const& listed, std::size_t number) {
    CheckTask::Owner& owner = *this;
    auto const task =
        std::make_shared<CheckTask>(listed, number, findings, pace, options.eager, owner);
    {
        std::lock_guard<std::mutex> const lock(mutex);
        underWay.insert(number);
    }
    while (!pace.isStopped() && !group.submitTask(task, ovra::concurrent::LOW, {})) {
        group.waitFor(PAUSE);
        saveIfDue(listed, number);
    }
}

// Waits for all that was submitted. `next` is the first file that was not.
void Rounds::drain(ListedFiles const& listed, std::size_t next) {
    for (bool isGivenUp = false; !group.waitFor(PAUSE);) {
        if (isGivenUp || !pace.isStopped()) {
            saveIfDue(listed, next);
            continue;
        }
        isGivenUp = true;
        group.cancelAll();
        noteNext(listed, next);
        save();  // Now: if the system blocks a worker, the process ends before a later save.
    }
    noteNext(listed, next);
    std::lock_guard<std::mutex> const lock(mutex);
    underWay.clear();
}

// Whether it has seen all that is to be searched.
bool Rounds::lookForNew(ListedFiles const& listed) {
    if (options.listedOnly || pace.isStopped()) {
        return false;
    }
    TreeSearch search(
        pace,
        [&](std::string const& path) {
            if (!listed.contains(path)) {
                findings.add(path, {Finding::NEW, {}});
            }
        },
        [&](std::string const& directory, extra::Outcome outcome) {
            bool const isMissing = outcome == extra::Outcome::MISSING;
            findings.add(directory, {isMissing ? Finding::MISSING : Finding::UNREADABLE,
                                     isMissing ? "" : extra::outcomeName(outcome)});
        });
    for (auto const& file : ownFiles(options)) {
        search.leaveOut(file);
    }
    std::vector<std::string> directories;
    for (auto const& directory : options.newBelow) {
        directories.push_back(asPrefix(directory));
    }
    findings.beginSearch();
    bool isComplete = true;
    for (auto const& directory : directories.empty() ? listed.directories() : directories) {
        isComplete = search.search(directory) && isComplete;
    }
    return isComplete;
}

void Rounds::finish(ListedFiles const& listed, std::string const& started) {
    status.round = round;
    status.started = started;
    status.ended = now();
    status.files = listed.size();
    status.well = listed.size() - findings.countOf(listed);
}

std::string Rounds::summary() const {
    return "files: " + std::to_string(status.files) +
           ", findings: " + std::to_string(findings.size());
}

void Rounds::checked(std::size_t number) {
    ++filesChecked;
    std::lock_guard<std::mutex> const lock(mutex);
    underWay.erase(number);
}

// Where this round would go on if the process ended now.
void Rounds::noteNext(ListedFiles const& listed, std::size_t next) {
    std::lock_guard<std::mutex> const lock(mutex);
    std::size_t const first = underWay.empty() ? next : *underWay.begin();
    status.nextFile = first < listed.size() ? listed.path(first) : "";
}

void Rounds::saveIfDue(ListedFiles const& listed, std::size_t next) {
    auto const age = Clock::now() - savedAt;
    bool const hasNews = findings.version() != savedVersion;
    if ((hasNews && age >= SAVE_FINDINGS_AFTER) || age >= SAVE_ANYWAY_AFTER) {
        noteNext(listed, next);  // First, so that no finding about an earlier file is left out.
        save();
    }
}

void Rounds::save() {
    savedVersion = findings.version();
    statusFile.save(status, findings);
    savedAt = Clock::now();
}

}  // namespace manifest
