// Logs to the system log, to the standard streams, to a file and to a sink of the application's
// own.

#include <atomic>
#include <iostream>
#include <memory>

#include <ovra/fs/FileHandle.h>
#include <ovra/log/Log.h>

namespace log = ovra::log;

namespace {

// Any thread that logs calls the sink, so the sink synchronises itself: here with an atomic.
class ProblemCounter : public log::LogHandler {
public:
    void handleLogMessage(char const*, log::LogLevel level) override {
        if (level <= log::WARNING) {
            ++problems;
        }
    }
    int count() const { return problems; }

private:
    std::atomic<int> problems{0};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !ovra::fs::FileHandle(argv[1]).IsDirectory()) {
        std::cerr << "usage: example-logging DIRECTORY\n";
        return 2;
    }

    // Register all sinks before the first other thread starts: the registry is not locked.
    auto const counter = std::make_shared<ProblemCounter>();
    log::addLogHandler(counter, "problems");
    log::addLogHandler(log::STANDARD_STREAM_HANDLER, "standard streams");
    log::addLogHandler(log::FILE_HANDLER, argv[1]);  // "ovra.log" inside the directory

    log::log(log::INFO, "main()", "Not delivered: the level is %s.",
             log::logLevelToName(log::getLogLevel()));
    log::setLogLevel(log::INFO);
    log::log(log::INFO, "main()", "The level is %s now.", log::logLevelToName(log::getLogLevel()));
    log::log(log::DEBUG, "main()", "Not delivered: %s is below it.", "DEBUG");
    log::log(log::WARNING, "main()", "The battery is at %d per cent.", 12);
    log::log(log::ERROR, "main()", "The battery is empty.");  // To standard error.

    // The system log takes each line as a format, so a percent sign is doubled once for it and once
    // for this format. The other sinks then show "100%%".
    log::log(log::INFO, "main()", "Charged to 100%%%%.");

    std::cout << counter->count() << " problems\n";
    return 0;
}
