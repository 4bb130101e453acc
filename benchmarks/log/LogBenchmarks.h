#pragma once

#include <string>

#include <benchmark/benchmark.h>

#include <benchmarks/support/AddBenchmark.h>
#include <benchmarks/support/TemporaryDirectory.h>

namespace ovra::bench {

/// Whether the system log is a reader of this program's own, which takes in all that arrives.
bool isSystemLogDrained();

/// The file that the sinks to be measured write to.
inline std::string logFile() {
    static TemporaryDirectory const directory;
    return directory / "bench.log";
}

/// Registers `write`, called with a number and a text for each line, between calls of `open` and
/// `close`.
template <typename Write>
void addLogBenchmark(std::string const& name, int threads, void (*open)(benchmark::State const&),
                     Write write, void (*close)(benchmark::State const&)) {
    addBenchmark(name,
                 [write](benchmark::State& state) {
                     int number = 0;
                     for ([[maybe_unused]] auto _ : state) {
                         write(++number, "EXECUTING");
                     }
                 })
        ->Threads(threads)
        ->UseRealTime()
        ->Setup(open)
        ->Teardown(close);
}

inline void nothing(benchmark::State const&) {}

}  // namespace ovra::bench
