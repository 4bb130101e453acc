#pragma once

#include <map>
#include <string>

namespace ovra::faults {

/// A directory of its own, with the entries that the operations work on:
///
///     file  "contents", long enough for a stream to read it in several goes
///     link -> file   directory/{first,second,inner/third}   directoryLink -> directory
///     empty/   dangling -> nowhere   bystander/{kept,within/kept}
///
/// Paths are too long for a string to keep within itself, so that every copy of one allocates.
class Tree {
public:
    Tree();
    Tree(Tree const&) = delete;
    Tree& operator=(Tree const&) = delete;
    ~Tree();

    /// Makes it as it was in the beginning.
    void restore();

    std::string at(std::string const& name) const { return root + "/" + name; }

    /// Everything in it: relative path, and type, permissions, owner, contents.
    std::map<std::string, std::string> snapshot() const;

private:
    std::string root;
};

/// The contents of `file`.
std::string const& contents();

}  // namespace ovra::faults
