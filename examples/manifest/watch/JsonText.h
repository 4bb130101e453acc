#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace manifest {

/// `bytes` as a string of JSON, quotes included. A byte that is not part of a character in UTF-8
/// becomes half a surrogate pair, "\udc80" to "\udcff", as in Python's names of files.
std::string jsonString(std::string_view bytes);

/// Parses JSON of a known layout, from its front on. White space between the parts is free.
class JsonReader {
public:
    explicit JsonReader(std::string_view json);

    /// Skips `characters` if they come next; returns whether they do.
    bool take(std::string_view characters);
    /// The string that comes next, as `jsonString` wrote it; nothing if there is none.
    std::optional<std::string> string();
    std::optional<std::uint64_t> number();

private:
    void skipSpace();
    bool readEscape(std::string& result);

    std::string_view rest;
};

}  // namespace manifest
