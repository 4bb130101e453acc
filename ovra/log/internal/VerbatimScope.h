#pragma once

namespace ovra::log {

/// Says for the calling thread, while it lives, whether a line is text to the system log or, as
/// usual, its format. Scopes nest: the innermost counts.
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
