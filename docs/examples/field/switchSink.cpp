// switchSink <file>: logs each line of its standard input. "talk" and "hush" change how much goes
// to the file, and "other <file>" changes the file.

#include <iostream>
#include <memory>
#include <string>

#include <ovra/extra.h>
#include <ovra/log/Log.h>

namespace extra = ovra::extra;
namespace log = ovra::log;

int main(int, char** arguments) {
    auto const file = std::make_shared<extra::RotatingFileLogHandler>(std::string(arguments[1]));
    auto const sink = std::make_shared<extra::SwitchLogHandler>(file, log::WARNING);
    log::addLogHandler(sink, "file");  // Once, before other threads log.
    log::setLogLevel(log::VERBOSE);

    for (std::string line; std::getline(std::cin, line);) {
        if (line == "talk") {
            sink->setLevel(log::DEBUG);
        } else if (line == "hush") {
            sink->setLevel(log::WARNING);
        } else if (line.rfind("other ", 0) == 0) {
            sink->exchange(std::make_shared<extra::RotatingFileLogHandler>(line.substr(6)));
        } else {
            log::logVerbatim(log::DEBUG, "service", "%s", line.c_str());
        }
    }
    return 0;
}
