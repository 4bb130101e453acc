#include <ovra/log/LogHandlers.h>

// In place of the system's log.
namespace ovra::log {

void PlatformLogHandler::handleLogMessage(char const*, LogLevel) {}

}  // namespace ovra::log
