#pragma once

#include <cstddef>
#include <string>

#include "Options.h"

namespace manifest {

/// What a check found out about one file.
enum class Verdict : unsigned char {
    UNKNOWN,  ///< Not read yet, or not begun before Ctrl-C.
    WELL,
    DIFFERENT,
    MISSING,     ///< It does not exist.
    UNREADABLE,  ///< It cannot be read for another reason.
};

/// Prints the verdict on each file as `sha256sum -c` does, and counts them.
class CheckReport {
public:
    explicit CheckReport(Options const& how);

    /// `reason` says why a file is `MISSING` or `UNREADABLE`. An `UNKNOWN` verdict is passed over.
    void add(std::string const& path, Verdict verdict, std::string const& reason);
    /// A file of the tree that the manifest does not list.
    void addNew(std::string const& path);

    /// Sums up what is not well. `manifest` is its name for messages.
    void warn(std::size_t malformedLines, std::string const& manifest) const;

    std::size_t filesReported() const;
    bool isAllWell() const;

private:
    void print(std::string const& path, char const* verdict) const;

    Options const& options;
    std::size_t reported = 0;
    std::size_t well = 0;
    std::size_t missing = 0;  // With `ignoreMissing` only.
    std::size_t unlisted = 0;
    std::size_t unreadable = 0;
    std::size_t different = 0;
};

}  // namespace manifest
