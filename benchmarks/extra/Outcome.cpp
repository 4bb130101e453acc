// What it costs to know why an operation failed: the same query with and without `attempt`.

#include <benchmark/benchmark.h>

#include <ovra/extra.h>
#include <ovra/fs/FileHandle.h>

namespace {

void removeNothing(benchmark::State& state) {
    ovra::fs::FileHandle handle("/nonexistent/entry");
    for (auto _ : state) {
        benchmark::DoNotOptimize(handle.Remove());
    }
}
BENCHMARK(removeNothing)->Name("Remove/bare");

void attemptToRemoveNothing(benchmark::State& state) {
    ovra::fs::FileHandle handle("/nonexistent/entry");
    for (auto _ : state) {
        benchmark::DoNotOptimize(ovra::extra::attempt([&] { return handle.Remove(); }));
    }
}
BENCHMARK(attemptToRemoveNothing)->Name("Remove/attempt");

}  // namespace
