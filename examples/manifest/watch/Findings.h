#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "ListedFiles.h"

namespace manifest {

/// What is not as the manifest lists it, about one path.
struct Finding {
    enum State {
        CHANGED,     ///< The digest is another one.
        MISSING,     ///< There is no such entry.
        UNREADABLE,  ///< It is there, but cannot be read.
        NEW,         ///< It is there, but not listed.
    };

    State state = CHANGED;
    std::string detail;  ///< The digest if `CHANGED`, the reason if `UNREADABLE`.
};

bool operator==(Finding const& left, Finding const& right);

/// "CHANGED" and so on.
char const* stateName(Finding::State state);

/// The current findings. Reports each once, and again when it changes or ends.
///
/// The path of a directory ends with a separator. Thread-safe; the report is called under a lock.
class Findings {
public:
    /// Gets the path, its state ("CHANGED", "UNREADABLE (DENIED)", "OK", ...) and whether there is
    /// such a finding now or no longer.
    using Report =
        std::function<void(std::string const& path, std::string const& what, bool isNow)>;

    explicit Findings(Report reportTo);

    /// Adds a finding of an earlier run, which reported it.
    void restore(std::string const& path, Finding finding);

    /// Drops all findings without a report, as if they had not been restored.
    void forgetAll();
    /// Drops the findings of searches without a report: this run makes no search.
    void forgetSearches();

    void add(std::string const& path, Finding finding);
    /// The file is as it is listed.
    void setWell(std::string const& path);

    /// A search for new files begins. It may add directories, and files that are `NEW`.
    void beginSearch();
    /// A round is over: ends findings about files that are no longer listed. If the search has seen
    /// everything, also ends its findings that it has not added again.
    void endRound(ListedFiles const& listed, bool hasSeenAll);

    /// Does not wait, even while a report blocks.
    std::size_t size() const;
    /// How many findings are about listed files.
    std::size_t countOf(ListedFiles const& listed) const;
    /// The number of reports so far. Does not wait.
    std::uint64_t version() const;
    /// Calls `function` for each, in order of path.
    void forEach(std::function<void(std::string const&, Finding const&)> const& function) const;

private:
    struct Known {
        Finding finding;
        std::uint64_t search;  // The last one that added it.
    };

    void changed(std::string const& path, std::string const& what, bool isNow);

    Report const report;
    mutable std::mutex mutex;  // Guards the rest.
    std::map<std::string, Known> known;
    std::atomic<std::size_t> count{0};  // Of `known`. Set under `mutex`.
    std::uint64_t searches = 0;
    std::atomic<std::uint64_t> changes{0};
};

}  // namespace manifest
