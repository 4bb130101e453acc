#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/TaskGroup.h>

#include "CheckTask.h"
#include "Findings.h"
#include "ListedFiles.h"
#include "Pace.h"
#include "StatusFile.h"
#include "WatchOptions.h"
#include "WatchStatus.h"

namespace manifest {

/// Verifies the tree again and again: reads the manifest, has the files hashed in the background,
/// looks for new ones, and saves what was found.
///
/// *Threads*: `run` blocks the thread that calls it for a whole round, and hashes on the workers of
/// `hashing`; one task of that executor must never wait for a round. The rest may be called from
/// any thread.
class Rounds : private CheckTask::Owner {
public:
    /// Called at the end of a round, on its thread, with a summary.
    using Ended = std::function<void(std::uint64_t round, std::string const& summary)>;

    Rounds(WatchOptions const& watchOptions,
           std::shared_ptr<ovra::concurrent::TaskExecutor> const& hashing, Findings& allFindings,
           StatusFile& file, Pace& readingPace, Ended whenEnded);
    Rounds(Rounds const&) = delete;
    Rounds& operator=(Rounds const&) = delete;
    ~Rounds() override;

    /// Runs a round here and now. If one is under way on another thread, that thread runs another
    /// one after it, and this call returns.
    void run();

    /// Whether the last round could be run, and there are no findings. For `Ended` only.
    bool isAllWell() const;
    bool isUnderWay() const;
    /// Whether no round is under way; waits for that until the limit has passed.
    bool waitForEnd(std::chrono::milliseconds limit);
    /// How far the round is, for people.
    std::string progress() const;

private:
    using Clock = std::chrono::steady_clock;

    void runOne();
    void verify(std::string const& started);
    void checkAll(ListedFiles const& listed);
    void submit(ListedFiles const& listed, std::size_t number);
    void drain(ListedFiles const& listed, std::size_t next);
    bool lookForNew(ListedFiles const& listed);
    void finish(ListedFiles const& listed, std::string const& started);
    std::string summary() const;
    void checked(std::size_t number) override;
    void noteNext(ListedFiles const& listed, std::size_t next);
    void saveIfDue(ListedFiles const& listed, std::size_t next);
    void save();

    WatchOptions const& options;
    Findings& findings;
    StatusFile& statusFile;
    Pace& pace;
    Ended const ended;
    ovra::extra::TaskGroup group;

    // Of the thread that runs the round.
    WatchStatus status;
    std::string trouble;  // Of the last round; empty if it could be run.
    std::uint64_t savedVersion = 0;
    Clock::time_point savedAt;

    std::atomic<std::uint64_t> round{0};
    std::atomic<std::size_t> filesListed{0};
    std::atomic<std::size_t> filesChecked{0};
    std::atomic<bool> hasEnded{true};

    mutable std::mutex mutex;  // Guards the rest.
    std::condition_variable isIdle;
    unsigned int wanted = 0;  // The round that is under way, and those after it.
    std::set<std::size_t> underWay;
};

}  // namespace manifest
