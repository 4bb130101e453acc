#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace manifest {

/// Returns the arguments of a command line one by one, "--name=value" as if it were two.
class Arguments {
public:
    /// `list` must outlive this object. Begins with the argument at the index `first`.
    explicit Arguments(std::vector<std::string> const& list, std::size_t first = 0);

    /// Goes on to the next argument; false if there is none. Throws `UsageError` if the option
    /// before has a value that nobody asked for.
    bool takeNext();

    /// The value of the current option. Throws `UsageError` if there is none, or an empty one.
    std::string value();

    /// The same as a number between `least` and `most`, in decimal digits.
    std::uint64_t number(std::uint64_t least, std::uint64_t most);

    std::string current;
    bool isOption = false;

private:
    std::vector<std::string> const& arguments;
    std::size_t next;
    std::string attached;  // "=value", until it is asked for.
    bool optionsEnded = false;
};

}  // namespace manifest
