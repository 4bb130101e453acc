#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Findings.h"

namespace manifest {

/// How far the rounds are, for people and for the next run.
struct WatchStatus {
    std::string manifest;
    std::uint64_t round = 0;  ///< The last one that came to its end; 0: none.
    std::string started;      ///< When it began, such as "2026-11-22T03:08:20Z".
    std::string ended;        ///< And when it ended.
    std::uint64_t files = 0;  ///< How many were listed.
    std::uint64_t well = 0;   ///< How many of them were as listed.
    std::string nextFile;     ///< Where an unfinished round goes on; empty: there is none.
};

/// The status and the findings as JSON.
std::string toJson(WatchStatus const& status, Findings const& findings);

/// The reverse. Calls `onFinding` for each finding. Nothing if `json` is not what `toJson` writes:
/// some findings may have been passed on even then.
std::optional<WatchStatus> fromJson(
    std::string_view json,
    std::function<void(std::string const& path, Finding const& finding)> const& onFinding);

}  // namespace manifest
