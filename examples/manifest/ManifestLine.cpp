#include "ManifestLine.h"

#include <algorithm>
#include <cstddef>

namespace manifest {

namespace {

constexpr std::size_t DIGEST_DIGITS = 64;
constexpr char BSD_NAME[] = "SHA256";
constexpr std::size_t BSD_NAME_LENGTH = sizeof BSD_NAME - 1;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::size_t skipBlanks(std::string const& text, std::size_t from) {
    while (from < text.size() && isBlank(text[from])) {
        ++from;
    }
    return from;
}

// Whatever the locale is.
bool isHexadecimal(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isDigest(std::string const& text) {
    return text.size() == DIGEST_DIGITS && std::all_of(text.begin(), text.end(), isHexadecimal);
}

std::string untilZeroByte(std::string const& text) {
    return text.substr(0, text.find('\0'));
}

std::optional<std::string> unescaped(std::string const& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\\') {
            ++i;
            char const next = i < text.size() ? text[i] : '\0';
            if (next != '\\' && next != 'n' && next != 'r') {
                return std::nullopt;
            }
            c = next == 'n' ? '\n' : next == 'r' ? '\r' : '\\';
        } else if (c == '\0') {
            return std::nullopt;
        }
        result += c;
    }
    return result;
}

// `text` is what follows "SHA256 (": a path, ") = " and the digest.
std::optional<ManifestEntry> parseBsdForm(std::string const& text, bool escaped) {
    std::size_t const end = text.rfind(')');
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::optional<std::string> path = text.substr(0, end);
    if (escaped) {
        path = unescaped(*path);
    }
    std::size_t const equals = skipBlanks(text, end + 1);
    if (!path || equals == text.size() || text[equals] != '=') {
        return std::nullopt;
    }
    std::string const digest = text.substr(skipBlanks(text, equals + 1));
    if (!isDigest(digest)) {
        return std::nullopt;
    }
    return ManifestEntry{digest, untilZeroByte(*path)};
}

}  // namespace

std::string manifestLine(ManifestEntry const& entry) {
    std::string const path = escapedPath(entry.path);
    bool const escaped = path.size() != entry.path.size();
    return (escaped ? "\\" : "") + entry.digest + "  " + path.substr(escaped ? 1 : 0) + '\n';
}

std::string escapedPath(std::string const& path) {
    if (path.find_first_of("\\\n\r") == std::string::npos) {
        return path;
    }
    std::string result = "\\";
    for (char const c : path) {
        switch (c) {
            case '\\':
                result += "\\\\";
                break;
            case '\n':
                result += "\\n";
                break;
            case '\r':
                result += "\\r";
                break;
            default:
                result += c;
        }
    }
    return result;
}

std::optional<ManifestEntry> ManifestReader::parse(std::string line) {
    line.erase(0, skipBlanks(line, 0));
    bool const escaped = !line.empty() && line[0] == '\\';
    if (escaped) {
        line.erase(0, 1);
    }

    if (line.compare(0, BSD_NAME_LENGTH, BSD_NAME) == 0) {
        line.erase(0, BSD_NAME_LENGTH);
        if (!line.empty() && line[0] == ' ') {
            line.erase(0, 1);
        }
        if (line.empty() || line[0] != '(') {
            return std::nullopt;
        }
        return parseBsdForm(line.substr(1), escaped);
    }

    std::size_t const shortest = DIGEST_DIGITS + 2;
    if (line.size() < shortest || !isBlank(line[DIGEST_DIGITS])) {
        return std::nullopt;
    }
    std::string const digest = line.substr(0, DIGEST_DIGITS);
    if (!isDigest(digest)) {
        return std::nullopt;
    }
    std::optional<std::string> path = parsePath(line.substr(DIGEST_DIGITS + 1));
    if (path && escaped) {
        path = unescaped(*path);
    }
    if (!path) {
        return std::nullopt;
    }
    return ManifestEntry{digest, untilZeroByte(*path)};
}

// `field` is what follows the digest and one blank.
std::optional<std::string> ManifestReader::parsePath(std::string const& field) {
    bool const hasMarker = field.size() > 1 && (field[0] == ' ' || field[0] == '*');
    if (!hasMarker) {
        if (markers == PRESENT) {
            return std::nullopt;
        }
        markers = ABSENT;
    } else if (markers == UNDECIDED) {
        markers = PRESENT;
    }
    return markers == PRESENT ? field.substr(1) : field;
}

}  // namespace manifest
