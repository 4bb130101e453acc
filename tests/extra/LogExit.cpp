// LogExit <end> <file>: logs to the file until and while the process ends.

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <ovra/extra.h>
#include <ovra/log/Log.h>

using namespace ovra;

namespace {

// Destroyed after all that `main` has made, and before the library.
struct Last {
    ~Last() {
        if (isLogging) {
            log::log(log::ERROR, "app", "at the very end");
        }
    }
    bool isLogging = false;
} last;

}  // namespace

int main(int, char** arguments) {
    std::string const end = arguments[1];
    extra::RotatingFileOptions options;
    options.stampTimes = false;
    auto const file =
        std::make_shared<extra::RotatingFileLogHandler>(std::string(arguments[2]), options);
    auto const sink = std::make_shared<extra::SwitchLogHandler>(file);
    // Never destroyed: threads use it until there is no process.
    static auto& recent = *new extra::RecentLinesLogHandler(10);
    log::addLogHandler(sink, "file");
    last.isLogging = true;
    std::thread([] {
        for (;;) {  // Still inside a line when the process ends.
            recent.handleLogMessage("a line", log::INFO);
        }
    }).detach();
    log::log(log::ERROR, "app", "ending");
    if (end == "_exit") {
        _exit(0);
    }
    if (end == "quick_exit") {
        std::quick_exit(0);
    }
    if (end == "abort") {
        std::abort();
    }
    return 0;
}
