#include <ovra/extra/RecentLinesLogHandler.h>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/LineRing.h>

namespace ovra::extra {

RecentLinesLogHandler::RecentLinesLogHandler(std::size_t lines, std::size_t bytesEach)
    : ring([=] {
          KeptErrno const keptErrno;
          return std::make_unique<LineRing>(lines, bytesEach);
      }()) {}

RecentLinesLogHandler::~RecentLinesLogHandler() {
    KeptErrno const keptErrno;
    ring.reset();
}

void RecentLinesLogHandler::handleLogMessage(char const* line, log::LogLevel) {
    if (line != nullptr) {
        ring->keep(line);
    }
}

bool RecentLinesLogHandler::writeTo(int descriptor) const {
    KeptErrno const keptErrno;
    return ring->writeTo(descriptor);
}

}  // namespace ovra::extra
