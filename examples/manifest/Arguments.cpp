#include "Arguments.h"

#include <charconv>
#include <limits>
#include <system_error>

#include "Options.h"
#include "Quote.h"

namespace manifest {

Arguments::Arguments(std::vector<std::string> const& list, std::size_t first)
    : arguments(list), next(first) {}

bool Arguments::takeNext() {
    if (!attached.empty()) {
        throw UsageError(current + " takes no value");
    }
    if (next == arguments.size()) {
        return false;
    }
    current = arguments[next++];
    isOption = !optionsEnded && current.size() > 1 && current[0] == '-';
    if (isOption && current == "--") {
        optionsEnded = true;
        return takeNext();
    }
    std::size_t const equals = current.find('=');
    if (isOption && current[1] != '-' && current.size() > 2) {
        attached = "=" + current.substr(2);  // -oFILE
        current.resize(2);
    } else if (isOption && current[1] == '-' && equals != std::string::npos) {
        attached = current.substr(equals);
        current.resize(equals);
    }
    return true;
}

std::string Arguments::value() {
    std::string result;
    if (!attached.empty()) {
        result = attached.substr(1);
        attached.clear();
    } else if (next < arguments.size()) {
        result = arguments[next++];
    }
    if (result.empty()) {
        throw UsageError(current + " needs a value");
    }
    return result;
}

std::uint64_t Arguments::number(std::uint64_t least, std::uint64_t most) {
    std::string const text = value();
    std::uint64_t result = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    if (error != std::errc() || end != text.data() + text.size() || result < least ||
        result > most) {
        bool const isBounded = most != std::numeric_limits<std::uint64_t>::max();
        throw UsageError(current + " needs a number from " + std::to_string(least) +
                         (isBounded ? " to " + std::to_string(most) : " up") + ", not " +
                         quoted(text));
    }
    return result;
}

}  // namespace manifest
