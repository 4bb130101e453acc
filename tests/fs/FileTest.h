// What several tests of the file-system layer need.

#pragma once

#include <ios>
#include <type_traits>

namespace ovra::fs {

/// Whether a member has exactly this type.
template <typename Member, typename Expected>
constexpr bool IS = std::is_same_v<Member, Expected>;

/// A stream opened without a mode of the caller's.
constexpr std::ios_base::openmode NO_MODE{};

}  // namespace ovra::fs
