#include <ovra/fs/FilePath.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
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

// As rfind(), which looks at one character at a time.
std::size_t findLastSeparator(std::string_view text) {
    void const* const found = ::memrchr(text.data(), SEPARATOR, text.size());
    return found != nullptr
               ? static_cast<std::size_t>(static_cast<char const*>(found) - text.data())
               : std::string_view::npos;
}

// Looks at all of the text, so that the compiler may take many characters in one step.
bool hasDoubledSeparator(std::string_view text) {
    int doubled = 0;
    for (std::size_t i = 1; i < text.size(); ++i) {
        doubled |= (text[i - 1] == SEPARATOR ? 1 : 0) & (text[i] == SEPARATOR ? 1 : 0);
    }
    return doubled != 0;
}

}  // namespace

FilePath::FilePath() = default;

FilePath::FilePath(std::string const& text) : path(text) {}

FilePath::FilePath(FilePath const& other) = default;

FilePath& FilePath::operator=(FilePath const& other) {
    SetPath(other.path);
    return *this;
}

FilePath::~FilePath() = default;

void FilePath::SetPath(std::string const& newPath) {
    path = newPath;
    cacheValid = false;
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
    char const* const textEnd = path.data() + path.size();
    // Never longer than the path, but for one character: "." for nothing, "/" after a lone root.
    std::string resolved(path.size() + 1, SEPARATOR);
    char* const first = resolved.data();
    char* out = first;
    std::size_t components = 0;
    std::size_t foldable = 0;  // how many of the last components a ".." may still take away

    for (char const* next = path.data(); next < textEnd;) {
        char const* const begin = next;
        // Components are short: a loop is quicker than a call.
        while (next < textEnd && *next != SEPARATOR) {
            ++next;
        }
        std::string_view const component(begin, static_cast<std::size_t>(next - begin));
        ++next;

        if (component == ".") {
            continue;
        }
        bool const isParent = component == "..";
        if (isParent && foldable > 0) {
            --foldable;
            --components;
            while (out > first && *--out != SEPARATOR) {
            }
            continue;
        }
        if (components > 0) {
            *out++ = SEPARATOR;
        }
        out = std::copy(component.begin(), component.end(), out);
        ++components;
        bool const isRoot = rooted && begin == path.data();
        if (!isParent && !isRoot) {
            ++foldable;
        }
    }

    if (rooted && components == 1) {
        *out++ = SEPARATOR;
    }
    if (out == first) {
        *out++ = '.';
    }
    resolved.resize(static_cast<std::size_t>(out - first));
    return resolved;
}

void FilePath::Cache() const {
    if (cacheValid) {
        return;
    }
    fullPath.clear();
    fileBaseName.clear();
    extension.clear();
    directoryPath.clear();
    absolute = startsAtRoot(path);

    // Below, strings are made and moved: assigning a view would first check for an overlap.

    // One separator at the end closes the last component and opens none.
    std::string_view text = path;
    if (EndingSeparator()) {
        text.remove_suffix(1);
    }
    std::size_t const lastSeparator = findLastSeparator(text);
    if (lastSeparator == std::string_view::npos) {
        fileName = text;
        if (absolute) {
            fileName += SEPARATOR;
            directoryPath = fileName;
        }
        fullPath = fileName;
    } else {
        directoryPath = std::string(text.substr(0, lastSeparator + 1));
        if (hasDoubledSeparator(directoryPath)) {
            auto const bothSeparators = [](char left, char right) {
                return left == SEPARATOR && right == SEPARATOR;
            };
            directoryPath.erase(
                std::unique(directoryPath.begin(), directoryPath.end(), bothSeparators),
                directoryPath.end());
        }
        fileName = std::string(text.substr(lastSeparator + 1));
        fullPath.reserve(directoryPath.size() + fileName.size());
        fullPath += directoryPath;
        fullPath += fileName;
    }

    std::string_view const name = fileName;
    std::size_t const dot = name == ".." ? std::string_view::npos : name.find('.', 1);
    fileBaseName.append(name, 0, dot);
    if (dot != std::string_view::npos) {
        extension.append(name, dot);
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
