#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <ovra/extra/Outcome.h>
#include <ovra/extra/internal/Descriptor.h>

namespace ovra::extra {

/// Removes one entry, and all that is in it if it is a directory: the work behind removeTree().
///
/// A scan reads a whole directory, through one buffer for all scans. It removes all but
/// directories, and keeps their names: they are entered one after the other. No position in a
/// directory has to be kept, so only the root and the innermost levels stay open. A closed level is
/// opened again through "..", or else by names from the root, and only if it is still the directory
/// that was closed.
class TreeRemoval {
public:
    /// `name` is an entry of `parent`, or no longer one.
    TreeRemoval(Descriptor parent, std::string const& name);

    /// Throws nothing. To be called once.
    Outcome run();

private:
    /// One directory has the same number for as long as it exists. The time of birth distinguishes
    /// it from a later one with the same number, but an overlay can change that time.
    struct Identity {
        std::uint64_t device = 0;
        std::uint64_t number = 0;
        std::int64_t birthSeconds = 0;
        std::uint32_t birthNanoseconds = 0;
        bool isMountPoint = false;

        bool read(Descriptor const& directory);
        bool hasNumberOf(Identity const& other) const;
        bool hasBirthOf(Identity const& other) const;
    };

    struct Level {
        Descriptor directory;
        Identity identity;
        /// Names of directories still to be removed, each ended by a NUL. The last one is being
        /// removed.
        std::string waiting;
        int scans = 0;
        bool hasFailed = false;  ///< Something in it, or below, stays.

        char const* current() const;
        void dropCurrent();
    };

    void enter();
    int open(Level& level) const;
    void scan();
    void leave();
    bool removeOther(char const* name);
    bool reopen(std::size_t index);
    bool entersRootAgain();
    static Descriptor openAgain(Descriptor const& from, char const* name, Identity& known);
    void fail(int error);

    /// From the parent of the root, which holds the root's name only, to the innermost one.
    std::vector<Level> levels;
    std::unique_ptr<std::uint64_t[]> const buffer;
    Outcome outcome = Outcome::DONE;
};

}  // namespace ovra::extra
