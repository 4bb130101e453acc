#pragma once

#include <string>

namespace ovra::test {

/// The digests of "alpha" and "beta".
inline std::string const ALPHA = "8ed3f6ad685b959ead7022518e1af76cd816f8e8ec7ccdda1ed4018e8f2223f8";
inline std::string const BETA = "f44e64e75f3948e9f73f8dfa94721c4ce8cbb4f265c4790c702b2d41cfbf2753";
/// The digest of nothing.
inline std::string const WRONG(64, '0');

}  // namespace ovra::test
