#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FileSearch.h"
#include "HashTask.h"
#include "Hasher.h"

namespace manifest {

/// The most tasks that exist at a time. A file that waits for its turn takes only the memory of its
/// name.
constexpr std::size_t TASKS_UNDER_WAY = 1024;

/// Hashes `files`: those at or below the path `first`, which may be empty, then the small ones,
/// then the large ones. Calls `report` in the same order, on the caller's thread, with the number
/// of the file in `files` and its task, which has ended or was skipped. Stops early when the hasher
/// is cancelled. Returns how many files were put first.
///
/// A file that takes as long as the next `TASKS_UNDER_WAY` files together leaves workers idle.
std::size_t hashAll(Hasher& hasher, std::vector<FoundFile> const& files, std::string const& first,
                    std::function<std::shared_ptr<HashTask>(FoundFile const&)> const& makeTask,
                    std::function<void(std::size_t, HashTask const&)> const& report);

/// Whether `path` is `directory` or below it, both as they are spelt.
bool isAtOrBelow(std::string const& directory, std::string const& path);

}  // namespace manifest
