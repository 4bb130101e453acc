#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Pace.h"

namespace manifest {

/// The files that a manifest lists, in little memory: 40 bytes and its path each.
class ListedFiles {
public:
    /// Reads the manifest at `path`. Gives up in the middle once `pace` is stopped. Throws
    /// `std::runtime_error` if it cannot be read or lists nothing.
    ListedFiles(std::string const& path, Pace& pace);

    /// Sorted by the bytes of the paths. Of several entries for one path, the first counts.
    std::size_t size() const;
    std::string_view path(std::size_t number) const;
    /// Whether `digest`, in lower-case hexadecimal, is the listed one.
    bool matches(std::size_t number, std::string_view digest) const;

    bool contains(std::string_view path) const;
    /// The number of the first file whose path is not below `path` in the order.
    std::size_t numberOf(std::string_view path) const;

    /// The directories that hold listed files, without those below another one of them. Each is
    /// spelt so that the name of an entry can follow: "d/", "/", or "" for the current directory.
    std::vector<std::string> directories() const;

private:
    struct File {
        std::uint32_t begin;  // Of the path in `paths`.
        std::uint32_t length;
        std::array<unsigned char, 32> digest;
    };

    void add(std::string const& path, std::string const& digest);
    void sort();
    std::string_view pathOf(File const& file) const;

    std::string paths;
    std::vector<File> files;
};

}  // namespace manifest
