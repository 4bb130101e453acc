#include <ovra/fs/FilePath.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace ovra::fs {

namespace {

constexpr char SEPARATOR = '/';

// Whether the first component is empty (the path begins with "/") or a drive such as "C:".
bool startsAtRoot(std::string_view path) {
    if (path.empty()) {
        return false;
    }
    if (path[0] == SEPARATOR) {
        return true;
    }
    return path.size() >= 2 && path[1] == ':' && (path.size() == 2 || path[2] == SEPARATOR);
}

}  // namespace

FilePath::FilePath() = default;

FilePath::FilePath(std::string const& text) : path(text) {}

FilePath::FilePath(FilePath const& other) = default;

FilePath& FilePath::operator=(FilePath const& other) {
    SetPath(other.path);
    fullPath.clear();
    fileName.clear();
    fileBaseName.clear();
    extension.clear();
    directoryPath.clear();
    return *this;
}

FilePath::~FilePath() = default;

void FilePath::SetPath(std::string const& newPath) {
    path = newPath;
    cacheValid = false;
    absolute = false;
}

FilePath FilePath::Resolve(std::string const& other) const {
    if (startsAtRoot(other)) {
        return FilePath(other);
    }
    return Join(other);
}

FilePath FilePath::Resolve(FilePath const& other) const {
    if (startsAtRoot(other.path)) {
        return other;
    }
    return Join(other.path);
}

FilePath FilePath::Join(std::string const& other) const {
    FilePath joined;
    joined.path.reserve(path.size() + 1 + other.size());
    joined.path += path;
    if (!EndingSeparator()) {
        joined.path += SEPARATOR;
    }
    joined.path += other;
    return joined;
}

std::string FilePath::Resolved() const {
    bool const rooted = startsAtRoot(path);
    std::string resolved;
    resolved.reserve(path.size());
    std::size_t components = 0;
    std::size_t foldable = 0;  // how many of the last components a ".." may still take away

    std::size_t next = 0;
    while (next < path.size()) {
        std::size_t const begin = next;
        std::size_t end = begin;  // Components are short: looking is quicker than calling for it.
        while (end < path.size() && path[end] != SEPARATOR) {
            ++end;
        }
        next = end + 1;
        std::string_view const component(path.data() + begin, end - begin);

        if (component == ".") {
            continue;
        }
        if (component == ".." && foldable > 0) {
            --foldable;
            --components;
            resolved.resize(components == 0 ? 0 : resolved.rfind(SEPARATOR));
            continue;
        }
        if (components > 0) {
            resolved += SEPARATOR;
        }
        resolved += component;
        ++components;
        bool const isRoot = rooted && begin == 0;
        if (component != ".." && !isRoot) {
            ++foldable;
        }
    }

    if (rooted && components == 1) {
        resolved += SEPARATOR;
    }
    if (resolved.empty()) {
        resolved += '.';
    }
    return resolved;
}

void FilePath::Cache() const {
    if (cacheValid) {
        return;
    }
    fullPath.clear();
    extension.clear();
    directoryPath.clear();
    absolute = startsAtRoot(path);

    // Below, strings are made and moved: to assign a view would look for overlaps first.

    // One separator at the end closes the last component and opens none.
    std::string_view text = path;
    if (EndingSeparator()) {
        text.remove_suffix(1);
    }
    std::size_t const lastSeparator = text.rfind(SEPARATOR);
    if (lastSeparator == std::string_view::npos) {
        fileName = text;
        if (absolute) {
            fileName += SEPARATOR;
            directoryPath = fileName;
        }
        fullPath = fileName;
    } else {
        directoryPath = std::string(text.substr(0, lastSeparator + 1));
        auto const bothSeparators = [](char left, char right) {
            return left == SEPARATOR && right == SEPARATOR;
        };
        directoryPath.erase(std::unique(directoryPath.begin(), directoryPath.end(), bothSeparators),
                            directoryPath.end());
        fileName = std::string(text.substr(lastSeparator + 1));
        fullPath.reserve(directoryPath.size() + fileName.size());
        fullPath += directoryPath;
        fullPath += fileName;
    }

    std::string_view const name = fileName;
    std::size_t const dot = name == ".." ? std::string_view::npos : name.find('.', 1);
    fileBaseName = std::string(name.substr(0, dot));
    if (dot != std::string_view::npos) {
        extension = std::string(name.substr(dot));
    }
    cacheValid = true;
}

std::string const& FilePath::Path() const {
    return path;
}

bool FilePath::IsEmpty() const {
    return path.empty();
}

bool FilePath::EndingSeparator() const {
    return !path.empty() && path.back() == SEPARATOR;
}

std::string const& FilePath::FullPath() const {
    Cache();
    return fullPath;
}

std::string const& FilePath::FileName() const {
    Cache();
    return fileName;
}

std::string const& FilePath::FileBaseName() const {
    Cache();
    return fileBaseName;
}

std::string const& FilePath::Extension() const {
    Cache();
    return extension;
}

std::string const& FilePath::DirectoryPath() const {
    Cache();
    return directoryPath;
}

std::string const& FilePath::DriveLetter() const {
    Cache();
    return driveLetter;
}

bool FilePath::IsAbsolute() const {
    Cache();
    return absolute;
}

bool FilePath::IsRelative() const {
    return !IsAbsolute();
}

}  // namespace ovra::fs
