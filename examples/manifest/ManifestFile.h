#pragma once

#include <string>

namespace manifest {

/// A file that appears under its name only when it is complete, in place of an older one.
///
/// Where its name is a link, the link stays, and the file that it leads to is replaced. It is on
/// the disk before it gets its name. It is written under a temporary name beside its place, and the
/// destructor removes that unless it was moved. Failures are `std::runtime_error`s that name the
/// file.
class ManifestFile {
public:
    /// Touches nothing yet. Throws if there is something other than a file at `path`, or if nothing
    /// can be created there.
    explicit ManifestFile(std::string const& path);
    ManifestFile(ManifestFile const&) = delete;
    ManifestFile& operator=(ManifestFile const&) = delete;
    ~ManifestFile();

    void write(std::string const& text);
    void moveIntoPlace();

private:
    void requirePlace() const;

    std::string const name;   // As given, for messages.
    std::string const place;  // With a directory part.
    std::string const directory;
    std::string temporary;  // Empty before it is made and after it was moved.
};

}  // namespace manifest
