#include "Findings.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace manifest {

namespace {

bool isOfSearch(std::string const& path, Finding const& finding) {
    return finding.state == Finding::NEW || path.back() == '/';
}

std::string described(Finding const& finding) {
    std::string const name = stateName(finding.state);
    return finding.state == Finding::UNREADABLE ? name + " (" + finding.detail + ')' : name;
}

}  // namespace

bool operator==(Finding const& left, Finding const& right) {
    return left.state == right.state && left.detail == right.detail;
}

char const* stateName(Finding::State state) {
    switch (state) {
        case Finding::CHANGED:
            return "CHANGED";
        case Finding::MISSING:
            return "MISSING";
        case Finding::UNREADABLE:
            return "UNREADABLE";
        case Finding::NEW:
            break;
    }
    return "NEW";
}

Findings::Findings(Report reportTo) : report(std::move(reportTo)) {}

void Findings::restore(std::string const& path, Finding finding) {
    std::lock_guard<std::mutex> const lock(mutex);
    known[path] = {std::move(finding), searches};
    count = known.size();
}

void Findings::forgetAll() {
    std::lock_guard<std::mutex> const lock(mutex);
    known.clear();
    count = 0;
}

void Findings::forgetSearches() {
    std::lock_guard<std::mutex> const lock(mutex);
    for (auto next = known.begin(); next != known.end();) {
        next = isOfSearch(next->first, next->second.finding) ? known.erase(next) : std::next(next);
    }
    count = known.size();
}

void Findings::add(std::string const& path, Finding finding) {
    std::lock_guard<std::mutex> const lock(mutex);
    auto const [place, isNew] = known.try_emplace(path);
    bool const isReported = !isNew && place->second.finding == finding;
    place->second = {std::move(finding), searches};
    if (!isReported) {
        changed(path, described(place->second.finding), true);
    }
}

void Findings::setWell(std::string const& path) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (known.erase(path) != 0) {
        changed(path, "OK", false);
    }
}

void Findings::beginSearch() {
    std::lock_guard<std::mutex> const lock(mutex);
    ++searches;
}

void Findings::endRound(ListedFiles const& listed, bool hasSeenAll) {
    std::lock_guard<std::mutex> const lock(mutex);
    for (auto next = known.begin(); next != known.end();) {
        auto const& [path, entry] = *next;
        bool const isNew = entry.finding.state == Finding::NEW;
        bool const ofSearch = isOfSearch(path, entry.finding);
        bool const isKept = ofSearch && (entry.search == searches || !hasSeenAll);
        // The path of a listed file may end with a separator, too.
        if (isKept || (!isNew && listed.contains(path))) {
            ++next;
            continue;
        }
        std::string const name = path;
        char const* const what = isNew ? "REMOVED" : ofSearch ? "OK" : "NOT LISTED";
        next = known.erase(next);
        changed(name, what, false);
    }
}

std::size_t Findings::size() const {
    return count;
}

std::size_t Findings::countOf(ListedFiles const& listed) const {
    std::lock_guard<std::mutex> const lock(mutex);
    return static_cast<std::size_t>(
        std::count_if(known.begin(), known.end(),
                      [&](auto const& entry) { return listed.contains(entry.first); }));
}

std::uint64_t Findings::version() const {
    return changes;
}

void Findings::forEach(
    std::function<void(std::string const&, Finding const&)> const& function) const {
    std::lock_guard<std::mutex> const lock(mutex);
    for (auto const& [path, entry] : known) {
        function(path, entry.finding);
    }
}

// With the lock held.
void Findings::changed(std::string const& path, std::string const& what, bool isNow) {
    count = known.size();
    ++changes;
    report(path, what, isNow);
}

}  // namespace manifest
