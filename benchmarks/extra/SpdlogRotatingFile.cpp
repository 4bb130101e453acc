// The same line to the peer's sink, which is set to pass each line to the system, as ovra's does.

#include <memory>

#include <benchmark/benchmark.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <benchmarks/extra/RotatingFile.h>
#include <benchmarks/support/AddBenchmark.h>

namespace ovra::bench {

namespace {

void writeLines(benchmark::State& state, char const* pattern) {
    TemporaryDirectory const directory;
    spdlog::sinks::rotating_file_sink_mt sink(directory / "log", MAX_BYTES, 1);
    sink.set_formatter(
        std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::utc));
    for (auto _ : state) {
        sink.log(spdlog::details::log_msg("bench", spdlog::level::info, LINE));
        sink.flush();
    }
}

[[maybe_unused]] bool const isAdded = [] {
    addBenchmark("logfile/plain/spdlog capped", [](auto& state) { writeLines(state, "%v"); });
    addBenchmark("logfile/stamped/spdlog capped",
                 [](auto& state) { writeLines(state, "%Y-%m-%dT%H:%M:%S.%eZ %v"); });
    return true;
}();

}  // namespace

}  // namespace ovra::bench
