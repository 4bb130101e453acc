#include <clocale>
#include <exception>
#include <string>
#include <vector>

#include <ovra/Version.h>

#include "Check.h"
#include "Create.h"
#include "ExitStatus.h"
#include "Interrupt.h"
#include "Logging.h"
#include "Messages.h"
#include "Options.h"
#include "Sha256.h"
#include "watch/Watch.h"

namespace {

using namespace manifest;

ExitStatus run(Options const& options) {
    switch (options.command) {
        case Options::HELP:
            print(HELP_TEXT);
            return finishOutput() ? ALL_WELL : TROUBLE;
        case Options::VERSION:
            print("ovra-manifest " OVRA_VERSION "\n");
            return finishOutput() ? ALL_WELL : TROUBLE;
        case Options::CREATE:
        case Options::CHECK:
        case Options::WATCH:
            break;
    }
    Sha256::setUpLibrary();
    if (options.command == Options::WATCH) {
        return watch(options.watch);
    }
    Interrupt interrupt;
    startLogging(options);
    return options.command == Options::CREATE ? create(options, interrupt)
                                              : check(options, interrupt);
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there are no other threads yet.
    try {
        return run(parseOptions({argv + 1, argv + argc}));
    } catch (UsageError const& error) {
        complain(error.what());
        return CALLED_WRONGLY;
    } catch (std::exception const& error) {
        complain(error.what());
        return TROUBLE;
    }
}
