#pragma once

#include <string>

namespace ovra::fs::internal {

/// Removes what the directory at `path` holds, as FileHandle::RemoveDirectoryRecursive() says; the
/// directory itself stays. What cannot be removed stays, and nothing is reported.
void emptyDirectory(std::string path);

}  // namespace ovra::fs::internal
