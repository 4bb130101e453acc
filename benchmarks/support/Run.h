#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace ovra::bench {

/// One measurement that a program makes once per process: `<program> <shape>/<contestant> n=1000`.
///
/// A process of its own keeps the heap, the caches and the peak of memory free of what another
/// measurement left behind, and lets an emulator or callgrind count the instructions of just this
/// one. Without an argument the program lists what it can measure.
class Run {
public:
    using Measure = std::function<void(Run&)>;

    /// Called while static objects are constructed. Returns true, for an object to hold.
    static bool add(std::string const& shape, std::string const& contestant, Measure measure);
    /// The program's exit status. 2 for an unknown name or argument.
    static int main(int argc, char** argv);

    /// The value after `name=` on the command line.
    std::int64_t number(std::string const& name, std::int64_t otherwise);
    /// Prints `<figure> <value>`. A figure reported again is another repetition.
    void report(char const* figure, double value);
    /// The measurement is void: the program says why and ends with status 1.
    [[noreturn]] void fail(char const* reason);

private:
    static std::map<std::string, Measure>& all();

    std::map<std::string, std::int64_t> numbers;
};

}  // namespace ovra::bench
