#include "ListedFiles.h"

#include <algorithm>
#include <istream>
#include <set>
#include <stdexcept>

#include <ovra/fs/FileHandle.h>

#include "ManifestLine.h"
#include "Messages.h"
#include "Quote.h"

namespace manifest {

using ovra::fs::FileHandle;

namespace {

constexpr std::size_t LEAST_LINE_BYTES = 68;  // A digest, a marker, a path and a newline.

int valueOf(char digit) {
    return digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10;
}

bool isEntry(std::string const& line) {
    return !line.empty() && line[0] != '#';
}

// "a/b/" -> "a/"   "a/" -> ""   "/a/" -> "/"   "/" -> ""
std::string parentOf(std::string const& directory) {
    std::size_t const end =
        directory.size() < 2 ? std::string::npos : directory.rfind('/', directory.size() - 2);
    return end == std::string::npos ? "" : directory.substr(0, end + 1);
}

bool hasAncestorIn(std::set<std::string> const& directories, std::string directory) {
    while (!directory.empty() && directory != "/") {
        directory = parentOf(directory);
        if (directories.count(directory) != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

ListedFiles::ListedFiles(std::string const& path, Pace& pace) {
    FileHandle const file(path);
    auto const stream = file.IsFile() ? file.CreateInputStream(std::ios_base::binary) : nullptr;
    if (!stream || !*stream) {
        std::string const reason = whyFileNotOpened(path);
        throw std::runtime_error(quoted(path) + ": " + (reason.empty() ? "not a file" : reason));
    }
    // More than enough: memory that is never used costs nothing, and moving to more memory would.
    auto const bytes = static_cast<std::size_t>(file.Size());
    files.reserve(bytes / LEAST_LINE_BYTES);
    paths.reserve(bytes);
    ManifestReader reader;
    for (std::string line; std::getline(*stream, line) && pace.take(0);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        auto const entry = isEntry(line) ? reader.parse(line) : std::nullopt;
        if (entry) {
            add(entry->path, entry->digest);
        }
    }
    if (stream->bad()) {
        throw std::runtime_error(quoted(path) + ": read error");
    }
    if (files.empty()) {
        throw std::runtime_error(quoted(path) + ": no properly formatted checksum lines found");
    }
    sort();
}

std::size_t ListedFiles::size() const {
    return files.size();
}

std::string_view ListedFiles::path(std::size_t number) const {
    return pathOf(files[number]);
}

bool ListedFiles::matches(std::size_t number, std::string_view digest) const {
    auto const& listed = files[number].digest;
    for (std::size_t i = 0; i < listed.size(); ++i) {
        if (listed[i] != valueOf(digest[2 * i]) * 16 + valueOf(digest[2 * i + 1])) {
            return false;
        }
    }
    return true;
}

bool ListedFiles::contains(std::string_view path) const {
    std::size_t const number = numberOf(path);
    return number < files.size() && pathOf(files[number]) == path;
}

std::size_t ListedFiles::numberOf(std::string_view path) const {
    auto const found = std::lower_bound(
        files.begin(), files.end(), path,
        [this](File const& file, std::string_view wanted) { return pathOf(file) < wanted; });
    return static_cast<std::size_t>(found - files.begin());
}

std::vector<std::string> ListedFiles::directories() const {
    std::set<std::string> all;
    for (auto const& file : files) {
        std::string_view const path = pathOf(file);
        all.emplace(path.substr(0, path.rfind('/') + 1));
    }
    std::vector<std::string> result;
    for (auto const& directory : all) {
        if (!hasAncestorIn(all, directory)) {
            result.push_back(directory);
        }
    }
    return result;
}

void ListedFiles::add(std::string const& path, std::string const& digest) {
    if (path.size() > UINT32_MAX - paths.size()) {
        throw std::runtime_error("the manifest is too long");
    }
    File file = {
        static_cast<std::uint32_t>(paths.size()), static_cast<std::uint32_t>(path.size()), {}};
    for (std::size_t i = 0; i < file.digest.size(); ++i) {
        file.digest[i] =
            static_cast<unsigned char>(valueOf(digest[2 * i]) * 16 + valueOf(digest[2 * i + 1]));
    }
    paths += path;
    files.push_back(file);
}

// A stable sort would need as much memory again.
void ListedFiles::sort() {
    std::sort(files.begin(), files.end(), [this](File const& left, File const& right) {
        int const order = pathOf(left).compare(pathOf(right));
        return order != 0 ? order < 0 : left.begin < right.begin;
    });
    auto const last = std::unique(
        files.begin(), files.end(),
        [this](File const& left, File const& right) { return pathOf(left) == pathOf(right); });
    files.erase(last, files.end());
}

std::string_view ListedFiles::pathOf(File const& file) const {
    return {paths.data() + file.begin, file.length};
}

}  // namespace manifest
