#include "JsonText.h"

#include <charconv>
#include <system_error>

namespace manifest {

namespace {

constexpr unsigned int HALF_OF_A_PAIR = 0xdc00;

bool continues(std::string_view text, std::size_t index) {
    return index < text.size() && (static_cast<unsigned char>(text[index]) & 0xc0) == 0x80;
}

// The length of the character in UTF-8 at the front; 0 if there is none.
std::size_t characterLength(std::string_view text) {
    auto const first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) {
        return 1;
    }
    std::size_t const length = first < 0xc2   ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    for (std::size_t i = 1; i < length; ++i) {
        if (!continues(text, i)) {
            return 0;
        }
    }
    // Too long a form, a surrogate, or beyond the last character.
    auto const second = static_cast<unsigned char>(length > 1 ? text[1] : '\0');
    bool const isWrong = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                         (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
    return isWrong ? 0 : length;
}

std::string escapeOf(unsigned int code) {
    std::string result = "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) {
        result += "0123456789abcdef"[(code >> shift) & 15];
    }
    return result;
}

}  // namespace

std::string jsonString(std::string_view bytes) {
    std::string result = "\"";
    while (!bytes.empty()) {
        auto const first = static_cast<unsigned char>(bytes[0]);
        std::size_t const length = characterLength(bytes);
        if (length == 0) {
            result += escapeOf(HALF_OF_A_PAIR + first);
        } else if (first < ' ' || first == 0x7f) {
            result += escapeOf(first);
        } else {
            result += first == '"' || first == '\\' ? "\\" : "";
            result += bytes.substr(0, length);
        }
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    return result + '"';
}

JsonReader::JsonReader(std::string_view json) : rest(json) {}

bool JsonReader::take(std::string_view characters) {
    skipSpace();
    bool const isNext = rest.substr(0, characters.size()) == characters;
    rest.remove_prefix(isNext ? characters.size() : 0);
    return isNext;
}

std::optional<std::string> JsonReader::string() {
    if (!take("\"")) {
        return std::nullopt;
    }
    std::string result;
    while (!rest.empty() && rest[0] != '"') {
        if (rest[0] == '\\') {
            if (!readEscape(result)) {
                return std::nullopt;
            }
        } else {
            result += rest[0];
            rest.remove_prefix(1);
        }
    }
    if (rest.empty()) {
        return std::nullopt;
    }
    rest.remove_prefix(1);
    return result;
}

std::optional<std::uint64_t> JsonReader::number() {
    skipSpace();
    std::uint64_t result = 0;
    auto const [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), result);
    if (error != std::errc()) {
        return std::nullopt;
    }
    rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
    return result;
}

void JsonReader::skipSpace() {
    std::size_t const begin = rest.find_first_not_of(" \t\r\n");
    rest.remove_prefix(begin == std::string_view::npos ? rest.size() : begin);
}

bool JsonReader::readEscape(std::string& result) {
    if (rest.size() >= 2 && (rest[1] == '"' || rest[1] == '\\')) {
        result += rest[1];
        rest.remove_prefix(2);
        return true;
    }
    unsigned int code = 0;
    if (rest.size() < 6 || rest[1] != 'u' ||
        std::from_chars(rest.data() + 2, rest.data() + 6, code, 16).ptr != rest.data() + 6) {
        return false;
    }
    bool const isByte =
        code < 0x80 || (code >= HALF_OF_A_PAIR + 0x80 && code <= HALF_OF_A_PAIR + 0xff);
    result += static_cast<char>(code & 0xff);
    rest.remove_prefix(6);
    return isByte;
}

}  // namespace manifest
