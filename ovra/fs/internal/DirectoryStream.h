#pragma once

#include <dirent.h>

namespace ovra::fs::internal {

/// The next entry but "." and ".."; null at the end, or when the reading fails. The record belongs
/// to `stream` and lasts until the next call.
struct dirent* readEntry(DIR* stream);

}  // namespace ovra::fs::internal
