#pragma once

#include <string>

namespace manifest {

/// Prints "ovra-manifest: " and `message` on standard error, as one line.
void say(std::string const& message);

/// Prints `message` in the same way, and logs it as a warning.
void complain(std::string const& message);

/// Writes to standard output. Once that has failed, nothing more is written.
void print(std::string const& text);

/// Writes out what `print()` still holds.
void flushOutput();

/// As `flushOutput()`. Whether all was written; if not, complains with the system's reason.
bool finishOutput();

/// `text` as it may be passed to the log: the system log takes each line as a format, so percent
/// signs are doubled; control characters, which could pass for other lines, become "?".
std::string forLog(std::string const& text);

/// Why a file or a directory cannot be opened for reading, in the system's words; empty if it can.
/// The library's file handles do not keep the reason of a failure, so these ask the system again.
std::string whyFileNotOpened(std::string const& path);
std::string whyDirectoryNotOpened(std::string const& path);

}  // namespace manifest
