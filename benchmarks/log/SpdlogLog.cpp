#include <syslog.h>

#include <memory>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>

#include <benchmarks/log/LogBenchmarks.h>

namespace ovra::bench {

namespace {

std::unique_ptr<spdlog::logger> logger;
std::unique_ptr<spdlog::sinks::basic_file_sink_mt> fileSink;

void open(spdlog::sinks_init_list sinks) {
    logger = std::make_unique<spdlog::logger>("bench", sinks);
    logger->set_pattern("[%n:%l] %v");
    logger->set_level(spdlog::level::info);
    logger->flush_on(spdlog::level::info);
}

spdlog::sink_ptr file() {
    return std::make_shared<spdlog::sinks::basic_file_sink_mt>(logFile(), true);
}

spdlog::sink_ptr systemLog() {
    return std::make_shared<spdlog::sinks::syslog_sink_mt>("benchmark-log", 0, LOG_USER, true);
}

void close(benchmark::State const&) {
    logger.reset();
}

void writeLine(int number, char const* text) {
    logger->info("Moving current task {} into {} state.", number, text);
}

void writeToSink(int, char const*) {
    spdlog::details::log_msg const line(
        "bench", spdlog::level::info,
        "[bench:INFO] Moving current task 1000 into EXECUTING state.");
    fileSink->log(line);
    fileSink->flush();
}

bool add() {
    addLogBenchmark(
        "filtered/spdlog", 1, [](benchmark::State const&) { open({file()}); },
        [](int number, char const* text) {
            logger->debug("Moving current task {} into {} state.", number, text);
        },
        close);
    for (int threads : {1, 4}) {
        std::string const suffix = threads == 1 ? "" : "/threads:4";
        addLogBenchmark(
            "sink/spdlog" + suffix, threads,
            [](benchmark::State const&) {
                fileSink = std::make_unique<spdlog::sinks::basic_file_sink_mt>(logFile(), true);
                fileSink->set_pattern("%v");
            },
            writeToSink, [](benchmark::State const&) { fileSink.reset(); });
        addLogBenchmark(
            "file/spdlog" + suffix, threads, [](benchmark::State const&) { open({file()}); },
            writeLine, close);
        if (isSystemLogDrained()) {
            addLogBenchmark(
                "syslog/spdlog" + suffix, threads,
                [](benchmark::State const&) { open({systemLog()}); }, writeLine, close);
            addLogBenchmark(
                "file+syslog/spdlog" + suffix, threads,
                [](benchmark::State const&) {
                    open({systemLog(), file()});
                },
                writeLine, close);
        }
    }
    return true;
}

[[maybe_unused]] bool const isAdded = add();

}  // namespace

}  // namespace ovra::bench
