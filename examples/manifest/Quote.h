#pragma once

#include <string>

namespace manifest {

/// A file name as it can be shown in a message: as it is when that is unambiguous, otherwise in
/// the quotes of a shell, with what cannot be printed in the current locale as octal escapes.
///
///     a.txt -> a.txt     a b -> 'a b'     it's -> "it's"     (empty) -> ''
///     a, newline, b -> 'a'$'\n''b'
std::string quoted(std::string const& name);

}  // namespace manifest
