// A line to RotatingFileLogHandler, next to the bare write of the same bytes.

#include <benchmarks/extra/RotatingFile.h>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <benchmarks/support/AddBenchmark.h>

namespace ovra::bench {

namespace {

void writeRaw(benchmark::State& state, std::string_view bytes) {
    TemporaryDirectory const directory;
    int const file =
        open((directory / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(file, bytes.data(), bytes.size()));
    }
    close(file);
}

void writeLines(benchmark::State& state, std::uint64_t maxBytes, bool areStamped) {
    TemporaryDirectory const directory;
    extra::RotatingFileOptions options;
    options.maxBytes = maxBytes;
    options.stampTimes = areStamped;
    extra::RotatingFileLogHandler sink(directory / "log", options);
    for (auto _ : state) {
        sink.handleLogMessage(LINE, log::INFO);
    }
}

std::string const PLAIN = std::string(LINE) + "\n";
std::string const STAMPED = "2026-11-21T16:32:37.236Z " + PLAIN;

void keepLines(benchmark::State& state) {
    extra::RecentLinesLogHandler sink(1000);
    for (auto _ : state) {
        sink.handleLogMessage(LINE, log::INFO);
    }
}
[[maybe_unused]] bool const isAdded = [] {
    addBenchmark("logfile/plain/write", [](auto& state) { writeRaw(state, PLAIN); });
    addBenchmark("logfile/stamped/write", [](auto& state) { writeRaw(state, STAMPED); });
    addBenchmark("logfile/plain/ovra", [](auto& state) { writeLines(state, 0, false); });
    addBenchmark("logfile/plain/ovra capped",
                 [](auto& state) { writeLines(state, MAX_BYTES, false); });
    addBenchmark("logfile/stamped/ovra", [](auto& state) { writeLines(state, 0, true); });
    addBenchmark("logfile/stamped/ovra capped",
                 [](auto& state) { writeLines(state, MAX_BYTES, true); });
    addBenchmark("recent/ovra", keepLines);
    return true;
}();

}  // namespace

}  // namespace ovra::bench
