#include <ovra/log/Log.h>

namespace log = ovra::log;

int main() {
    log::setLogLevel(log::INFO);  // At first only ERROR is delivered.
    log::addLogHandler(log::STANDARD_STREAM_HANDLER, "console");

    // Each line goes to the system log, and here to the console.
    log::log(log::INFO, "main()", "Version %d.%d", 1, 0);
    // Text that the application did not write: a percent sign in it means nothing.
    log::logVerbatim(log::WARNING, "main()", "Cannot read '%s'", "50%s.txt");
}
