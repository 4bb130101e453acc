#include "Quote.h"

#include <cstddef>
#include <cwchar>
#include <cwctype>
#include <string_view>

namespace manifest {

namespace {

// The length of the character at the front of `text`, and whether it can be shown as it is.
std::size_t nextCharacter(std::string_view text, bool& printable) {
    std::mbstate_t state = {};
    wchar_t wide = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): not with a state of our own.
    std::size_t const length = std::mbrtowc(&wide, text.data(), text.size(), &state);
    if (length == static_cast<std::size_t>(-2)) {
        printable = false;
        return text.size();
    }
    if (length == 0 || length == static_cast<std::size_t>(-1)) {
        printable = false;
        return 1;
    }
    printable = std::iswprint(static_cast<std::wint_t>(wide)) != 0;
    return length;
}

bool isOneOf(char c, std::string_view set) {
    return set.find(c) != std::string_view::npos;
}

// Whether a shell, or a reader of messages, could take the name for something else.
bool needsQuotes(std::string_view name) {
    if (name.empty() || isOneOf(name[0], "#~") || name == "{" || name == "}") {
        return true;
    }
    if (name.find_first_of(" :?\\'!\"$&()*;<=>[^`|") != std::string_view::npos) {
        return true;
    }
    bool printable = true;
    for (std::size_t i = 0; i < name.size() && printable;) {
        i += nextCharacter(name.substr(i), printable);
    }
    return !printable;
}

// Whether double quotes hold the name as it is: they do so for a plain name with an apostrophe.
bool fitsDoubleQuotes(std::string_view name) {
    if (name.find('\'') == std::string_view::npos) {
        return false;
    }
    for (std::size_t i = 0; i < name.size();) {
        bool const special =
            isOneOf(name[i], "?\\!\"$&()*;<=>[^`|{}") || (i > 0 && isOneOf(name[i], "#~"));
        bool printable = true;
        i += nextCharacter(name.substr(i), printable);
        if (special || !printable) {
            return false;
        }
    }
    return true;
}

std::string escapeOf(char c) {
    static constexpr std::string_view NAMED = "\a\b\t\n\v\f\r";
    if (std::size_t const index = NAMED.find(c); index != std::string_view::npos) {
        return {'\\', "abtnvfr"[index]};
    }
    auto const byte = static_cast<unsigned char>(c);
    auto const digit = [](int value) { return static_cast<char>('0' + value); };
    return {'\\', digit(byte >> 6), digit((byte >> 3) & 7), digit(byte & 7)};
}

}  // namespace

std::string quoted(std::string const& name) {
    if (!needsQuotes(name)) {
        return name;
    }
    if (fitsDoubleQuotes(name)) {
        return '"' + name + '"';
    }
    std::string result = "'";
    bool escaping = false;  // within $'...'
    for (std::size_t i = 0; i < name.size();) {
        if (name[i] == '\'') {
            result += "'\\''";
            escaping = false;
            ++i;
            continue;
        }
        bool printable = true;
        std::size_t const end = i + nextCharacter(std::string_view(name).substr(i), printable);
        if (escaping == printable) {
            result += printable ? "''" : "'$'";
            escaping = !escaping;
        }
        for (; i < end; ++i) {
            result += printable ? std::string(1, name[i]) : escapeOf(name[i]);
        }
    }
    return result + '\'';
}

}  // namespace manifest
