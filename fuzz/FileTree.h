#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ovra::fuzz {

/// Directories, files and links in memory, under one directory, which is the current one. What an
/// operation gives and leaves behind is what the system's call of that name would.
///
/// A path that leads out of the directory has no answer here: see `hasLeft`.
class FileTree {
public:
    enum Kind { FILE, DIRECTORY, LINK };
    struct Node {
        Kind kind;
        unsigned long permissions;
        std::string contents;  // Of a file, or of a link.
        int parent;
        std::map<std::string, int> entries;
    };
    static constexpr int TOP = 0;

    /// `absoluteRoot` is the absolute path of the directory.
    explicit FileTree(std::string absoluteRoot);

    Node const& at(int id) const { return nodes.at(id); }
    Node& at(int id) { return nodes.at(id); }
    bool hasLeft() const { return left; }

    /// Nothing if there is none. `stat` follows a link in the last place, `lstat` does not.
    std::optional<int> stat(std::string const& path) const;
    std::optional<int> lstat(std::string const& path) const;

    /// Finds a file to write, through links as well, and makes it if it is to be made.
    std::optional<int> open(std::string const& path, bool creates);
    bool mkdir(std::string const& path);
    bool symlink(std::string const& contents, std::string const& path);
    /// Of anything but a directory that is not empty.
    bool remove(std::string const& path);
    bool rename(std::string const& from, std::string const& to);

private:
    enum Last { NEVER_FOLLOWED, FOLLOWED_BEFORE_SEPARATOR, FOLLOWED };
    struct Place {
        int directory;
        std::string name;
        std::optional<int> node;
        bool hasSeparator;  // One stands after the name.

        bool isDots() const { return name == "." || name == ".."; }
    };

    std::optional<Place> find(std::string const& path, Last last) const;
    std::optional<Place> find(int start, std::string const& path, Last last, int& linksLeft) const;
    bool isWithin(int node, int directory) const;
    int add(Place const& place, Node const& node);
    void take(Place const& place);

    std::string root;
    std::map<int, Node> nodes;
    int nextId = TOP + 1;
    mutable bool left = false;
};

}  // namespace ovra::fuzz
