#include <fuzz/FileTree.h>

#include <sstream>
#include <utility>

namespace ovra::fuzz {

namespace {

constexpr int MOST_LINKS = 40;
constexpr unsigned long NEW_FILE = 0644;
constexpr unsigned long NEW_DIRECTORY = 0755;

std::vector<std::string> componentsOf(std::string const& path) {
    std::vector<std::string> components;
    std::istringstream stream(path);
    for (std::string component; std::getline(stream, component, '/');) {
        if (!component.empty()) {
            components.push_back(component);
        }
    }
    return components;
}

}  // namespace

FileTree::FileTree(std::string absoluteRoot) : root(std::move(absoluteRoot)) {
    nodes[TOP] = {DIRECTORY, NEW_DIRECTORY, "", TOP, {}};
}

std::optional<FileTree::Place> FileTree::find(std::string const& path, Last last) const {
    int linksLeft = MOST_LINKS;
    return find(TOP, path, last, linksLeft);
}

std::optional<FileTree::Place> FileTree::find(int start, std::string const& path, Last last,
                                              int& linksLeft) const {
    if (path.empty()) {
        return std::nullopt;
    }
    if (path.front() == '/') {
        if (path.compare(0, root.size() + 1, root + "/") != 0) {
            left = true;
            return std::nullopt;
        }
        return find(TOP, "." + path.substr(root.size()), last, linksLeft);
    }
    std::vector<std::string> const names = componentsOf(path);
    Place place{start, ".", start, false};
    for (std::size_t i = 0; i < names.size(); ++i) {
        bool const isLast = i + 1 == names.size();
        if (!place.node || at(*place.node).kind != DIRECTORY) {
            return std::nullopt;
        }
        int const directory = *place.node;
        place = {directory, names[i], directory, !isLast || path.back() == '/'};
        if (place.name == "..") {
            if (directory == TOP) {
                left = true;
                return std::nullopt;
            }
            place.node = at(directory).parent;
        } else if (place.name != ".") {
            auto const entry = at(directory).entries.find(place.name);
            place.node = entry != at(directory).entries.end() ? std::optional<int>(entry->second)
                                                              : std::nullopt;
        }
        bool const isFollowed = !isLast || last == FOLLOWED ||
                                (last == FOLLOWED_BEFORE_SEPARATOR && place.hasSeparator);
        if (place.node && at(*place.node).kind == LINK && isFollowed) {
            if (linksLeft-- == 0) {
                return std::nullopt;
            }
            auto const target = find(directory, at(*place.node).contents, FOLLOWED, linksLeft);
            if (!target) {
                return std::nullopt;
            }
            bool const hasSeparator = place.hasSeparator || target->hasSeparator;
            place = *target;
            place.hasSeparator = hasSeparator;
        }
    }
    bool const isMisnamed = last != NEVER_FOLLOWED && place.hasSeparator && place.node &&
                            at(*place.node).kind != DIRECTORY;
    return isMisnamed ? std::nullopt : std::optional<Place>(place);
}

std::optional<int> FileTree::stat(std::string const& path) const {
    auto const place = find(path, FOLLOWED);
    return place ? place->node : std::nullopt;
}

std::optional<int> FileTree::lstat(std::string const& path) const {
    auto const place = find(path, FOLLOWED_BEFORE_SEPARATOR);
    return place ? place->node : std::nullopt;
}

std::optional<int> FileTree::open(std::string const& path, bool creates) {
    auto const place = find(path, FOLLOWED);
    if (!place) {
        return std::nullopt;
    }
    if (place->node) {
        return at(*place->node).kind == FILE ? place->node : std::nullopt;
    }
    if (!creates || place->hasSeparator) {
        return std::nullopt;
    }
    return add(*place, {FILE, NEW_FILE, "", place->directory, {}});
}

bool FileTree::mkdir(std::string const& path) {
    auto const place = find(path, NEVER_FOLLOWED);
    if (!place || place->node) {
        return false;
    }
    add(*place, {DIRECTORY, NEW_DIRECTORY, "", place->directory, {}});
    return true;
}

bool FileTree::symlink(std::string const& contents, std::string const& path) {
    auto const place = find(path, NEVER_FOLLOWED);
    if (!place || place->node || place->hasSeparator) {
        return false;
    }
    add(*place, {LINK, 0777, contents, place->directory, {}});
    return true;
}

bool FileTree::remove(std::string const& path) {
    auto const place = find(path, NEVER_FOLLOWED);
    if (!place || !place->node || place->isDots()) {
        return false;
    }
    Node const& node = at(*place->node);
    if (node.kind == DIRECTORY ? !node.entries.empty() : place->hasSeparator) {
        return false;
    }
    take(*place);
    nodes.erase(*place->node);
    return true;
}

bool FileTree::rename(std::string const& from, std::string const& to) {
    auto const source = find(from, NEVER_FOLLOWED);
    auto const target = find(to, NEVER_FOLLOWED);
    if (!source || !source->node || !target || source->isDots() || target->isDots()) {
        return false;
    }
    bool const isDirectory = at(*source->node).kind == DIRECTORY;
    if (!isDirectory && (source->hasSeparator || target->hasSeparator)) {
        return false;
    }
    if (source->node == target->node) {
        return true;
    }
    if (isWithin(target->directory, *source->node)) {
        return false;
    }
    if (target->node) {
        Node const& replaced = at(*target->node);
        if ((replaced.kind == DIRECTORY) != isDirectory || !replaced.entries.empty()) {
            return false;
        }
        take(*target);
        nodes.erase(*target->node);
    }
    take(*source);
    at(*source->node).parent = target->directory;
    at(target->directory).entries[target->name] = *source->node;
    return true;
}

bool FileTree::isWithin(int node, int directory) const {
    while (node != directory && node != TOP) {
        node = at(node).parent;
    }
    return node == directory;
}

int FileTree::add(Place const& place, Node const& node) {
    int const id = nextId++;
    nodes[id] = node;
    at(place.directory).entries[place.name] = id;
    return id;
}

void FileTree::take(Place const& place) {
    at(place.directory).entries.erase(place.name);
}

}  // namespace ovra::fuzz
