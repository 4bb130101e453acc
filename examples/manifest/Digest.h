#pragma once

#include <array>
#include <string>

namespace manifest {

/// A SHA-256 digest as it is kept for many files: its 32 bytes take less than its 64 digits.
using Digest = std::array<unsigned char, 32>;

/// `digits` are 64 hexadecimal digits, in either case.
Digest digestFrom(std::string const& digits);

/// In lower-case hexadecimal.
std::string digitsOf(Digest const& digest);

}  // namespace manifest
