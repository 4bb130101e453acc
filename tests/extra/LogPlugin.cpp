// What a plug-in does with the sinks between its load and its unload.

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <ovra/extra.h>

using namespace ovra;

extern "C" __attribute__((visibility("default"))) int useSinks(char const* path, int descriptor) {
    extra::RotatingFileOptions options;
    options.stampTimes = false;
    options.maxBytes = 20;
    auto const file = std::make_shared<extra::RotatingFileLogHandler>(std::string(path), options);
    extra::SwitchLogHandler sink(file);
    extra::RecentLinesLogHandler recent(2);
    for (char const* line : {"line 1", "line 2", "line 3"}) {
        sink.handleLogMessage(line, log::INFO);
        recent.handleLogMessage(line, log::INFO);
    }
    OVRA_LOG_EVERY(1000, log::VERBOSE, "tag", "filtered");
    pid_t const child = fork();
    if (child == 0) {
        sink.handleLogMessage("child", log::INFO);
        recent.handleLogMessage("child", log::INFO);
        _exit(recent.writeTo(descriptor) ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child ? status : -1;
}
