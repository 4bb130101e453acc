#pragma once

#include <string>

namespace manifest {

/// A file that appears under its name only when it is complete, in place of an older one.
///
/// Where its name is a link, the link stays, and the file that it leads to is replaced. The text
/// goes to a temporary file beside that place, and to the disk before that file gets the name. The
/// destructor removes a temporary file that was not moved. Failures are `std::runtime_error`s that
/// name the file.
class ManifestFile {
public:
    /// Touches nothing yet. Throws if there is something other than a file at `path`, or if nothing
    /// can be created there.
    explicit ManifestFile(std::string const& path);
    ManifestFile(ManifestFile const&) = delete;
    ManifestFile& operator=(ManifestFile const&) = delete;
    ~ManifestFile();

    /// Appends `text`, which may be empty. The first call makes the file.
    void write(std::string const& text);
    /// After at least one `write()`.
    void moveIntoPlace();

private:
    void makeTemporary();
    void sync();
    void requirePlace() const;

    std::string const name;   // As given, for messages.
    std::string const place;  // With a directory part.
    std::string const directory;
    std::string temporary;  // Empty before it is made and after it was moved.
    int descriptor = -1;    // Of the temporary file, while it is written.
};

}  // namespace manifest
