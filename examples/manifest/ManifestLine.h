#pragma once

#include <optional>
#include <string>

namespace manifest {

/// One file of a manifest.
struct ManifestEntry {
    std::string digest;  ///< 64 hexadecimal digits.
    std::string path;
};

/// The line for a file, with its newline, as sha256sum writes it: a path with a backslash, newline
/// or carriage return is escaped, and a backslash in front of the line says so.
std::string manifestLine(ManifestEntry const& entry);

/// The path as it stands in such a line, a leading backslash included.
std::string escapedPath(std::string const& path);

/// Parses the lines of a manifest, in all the forms that sha256sum accepts: text and binary
/// markers, the BSD forms, either case, escapes.
class ManifestReader {
public:
    /// Empty if `line`, which has no newline, is not properly formatted. Feed the lines in order:
    /// the first one without a marker decides for the rest that there are none.
    std::optional<ManifestEntry> parse(std::string line);

private:
    enum Markers { UNDECIDED, PRESENT, ABSENT };

    std::optional<std::string> parsePath(std::string const& field);

    Markers markers = UNDECIDED;
};

}  // namespace manifest
