// serviceLog <file>: logs each line of its standard input, until that ends.

#include <signal.h>

#include <iostream>
#include <memory>
#include <string>

#include <ovra/extra.h>
#include <ovra/log/Log.h>

namespace extra = ovra::extra;
namespace log = ovra::log;

namespace {

// Never released: the signal can come after `main`, too. Set before it can come.
auto& logFile = *new std::shared_ptr<extra::RotatingFileLogHandler>;

void onHangUp(int) {
    logFile->requestReopen();
}

}  // namespace

int main(int, char** arguments) {
    extra::RotatingFileOptions options;
    options.maxBytes = 512 << 10;       // The flash holds three files of half a megabyte,
    options.generations = 2;            // the log and two older ones.
    options.syncLevel = log::CRITICAL;  // Lines that explain a reset are on the disk before it.
    logFile = std::make_shared<extra::RotatingFileLogHandler>(std::string(arguments[1]), options);
    log::addLogHandler(logFile, "file");
    log::setLogLevel(log::INFO);

    struct sigaction action = {};
    action.sa_handler = onHangUp;
    action.sa_flags = SA_RESTART;
    sigaction(SIGHUP, &action, nullptr);

    for (std::string line; std::getline(std::cin, line);) {
        log::logVerbatim(log::INFO, "service", "Working on %s.", line.c_str());
        OVRA_LOG_EVERY(60000, log::WARNING, "service", "The battery is low.");
    }
    return logFile->sync() ? 0 : 1;
}
