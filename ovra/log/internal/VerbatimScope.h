#pragma once

namespace ovra::log {

/// While it exists: sets for the calling thread whether the system log takes a line as text or, as
/// usual, as a format. Scopes nest: the innermost counts.
class VerbatimScope {
public:
    explicit VerbatimScope(bool isText);
    VerbatimScope(VerbatimScope const&) = delete;
    VerbatimScope& operator=(VerbatimScope const&) = delete;
    ~VerbatimScope();

    /// False outside any scope.
    static bool isVerbatim();

private:
    bool const outer;
};

}  // namespace ovra::log
