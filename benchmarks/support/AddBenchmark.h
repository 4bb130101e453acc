#pragma once

#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

namespace ovra::bench {

/// Registers a benchmark. With `OVRA_BENCH_ITERATIONS` in the environment it runs just as often,
/// for those who count its instructions.
template <typename Function>
benchmark::internal::Benchmark* addBenchmark(std::string const& name, Function const& function) {
    auto* const added = benchmark::RegisterBenchmark(name.c_str(), function);
    if (char const* const iterations = std::getenv("OVRA_BENCH_ITERATIONS")) {
        added->Iterations(std::atoll(iterations));
    }
    return added;
}

}  // namespace ovra::bench
