// A line to RotatingFileLogHandler, next to the bare write of the same bytes.

#include <benchmarks/extra/RotatingFile.h>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

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

BENCHMARK_CAPTURE(writeRaw, plain, PLAIN)->Name("logfile/plain/write");
BENCHMARK_CAPTURE(writeRaw, stamped, STAMPED)->Name("logfile/stamped/write");
BENCHMARK_CAPTURE(writeLines, plain, 0, false)->Name("logfile/plain/ovra");
BENCHMARK_CAPTURE(writeLines, capped, MAX_BYTES, false)->Name("logfile/plain/ovra capped");
BENCHMARK_CAPTURE(writeLines, stamped, 0, true)->Name("logfile/stamped/ovra");
BENCHMARK_CAPTURE(writeLines, cappedStamped, MAX_BYTES, true)->Name("logfile/stamped/ovra capped");

void keepLines(benchmark::State& state) {
    extra::RecentLinesLogHandler sink(1000);
    for (auto _ : state) {
        sink.handleLogMessage(LINE, log::INFO);
    }
}
BENCHMARK(keepLines)->Name("recent/ovra");

}  // namespace

}  // namespace ovra::bench
