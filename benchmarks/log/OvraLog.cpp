#include <memory>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <benchmarks/log/LogBenchmarks.h>

namespace ovra::bench {

namespace {

class Discard : public log::LogHandler {
public:
    void handleLogMessage(char const*, log::LogLevel) override {}
};

std::shared_ptr<log::LogHandler> fileSink;

void openFile(benchmark::State const&) {
    fileSink = log::createLogHandler(log::FILE_HANDLER, logFile().c_str());
}

void addFile(benchmark::State const&) {
    log::addLogHandler(log::FILE_HANDLER, logFile().c_str());
}

void removeFile(benchmark::State const&) {
    log::addLogHandler(std::make_shared<Discard>(), logFile().c_str());
}

void writeLine(int number, char const* text) {
    log::log(log::INFO, "bench", "Moving current task %d into %s state.", number, text);
}

bool add() {
    log::setLogLevel(log::INFO);
    addLogBenchmark(
        "filtered/ovra", 1, nothing,
        [](int number, char const* text) {
            log::log(log::DEBUG, "bench", "Moving current task %d into %s state.", number, text);
        },
        nothing);
    for (int threads : {1, 4}) {
        std::string const suffix = threads == 1 ? "" : "/threads:4";
        addLogBenchmark(
            "sink/ovra" + suffix, threads, openFile,
            [](int, char const*) {
                fileSink->handleLogMessage(
                    "[bench:INFO] Moving current task 1000 into EXECUTING state.", log::INFO);
            },
            [](benchmark::State const&) { fileSink.reset(); });
        if (isSystemLogDrained()) {
            addLogBenchmark("syslog/ovra" + suffix, threads, nothing, writeLine, nothing);
            addLogBenchmark("file+syslog/ovra" + suffix, threads, addFile, writeLine, removeFile);
        }
    }
    return true;
}

[[maybe_unused]] bool const isAdded = add();

}  // namespace

}  // namespace ovra::bench
