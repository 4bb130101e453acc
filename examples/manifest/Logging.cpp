#include "Logging.h"

#include <stdexcept>

#include <ovra/fs/FileHandle.h>
#include <ovra/log/Log.h>

#include "Quote.h"

namespace manifest {

namespace log = ovra::log;
using ovra::fs::FileHandle;

std::string logFile(Options const& options) {
    FileHandle const named(options.log);
    return named.IsDirectory() ? named.Open("ovra.log").Path().Path() : options.log;
}

void startLogging(Options const& options) {
    if (!options.log.empty()) {
        // The sink would discard every line in silence.
        if (!*FileHandle(logFile(options)).CreateOutputStream(std::ios_base::app)) {
            throw std::runtime_error(quoted(logFile(options)) + ": cannot be written");
        }
        log::addLogHandler(log::createLogHandler(log::FILE_HANDLER, options.log.c_str()), "file");
    }
    if (options.verbose) {
        log::addLogHandler(log::STANDARD_STREAM_HANDLER, "standard streams");
    }
    if (!options.log.empty() || options.verbose) {
        log::setLogLevel(log::INFO);
    }
}

}  // namespace manifest
