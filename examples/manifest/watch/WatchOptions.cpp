#include "WatchOptions.h"

#include <cmath>
#include <limits>

#include "Arguments.h"
#include "Options.h"
#include "Quote.h"

namespace manifest {

namespace {

constexpr std::uint64_t ANY = std::numeric_limits<std::uint64_t>::max();

// "0.05" -> 50 ms
std::chrono::milliseconds parseSeconds(std::string const& option, std::string const& text) {
    bool const isNumber =
        text.size() <= 12 && text.find_first_not_of("0123456789.") == std::string::npos &&
        text.find_first_of("0123456789") != std::string::npos && text.find('.') == text.rfind('.');
    std::chrono::milliseconds const period(isNumber ? std::llround(std::stod(text) * 1000) : 0);
    if (period.count() == 0) {
        throw UsageError(option + " needs a number of seconds such as 3600 or 0.5, not " +
                         quoted(text));
    }
    return period;
}

void setOption(WatchOptions& options, Arguments& arguments) {
    std::string const& option = arguments.current;
    if (option == "--every") {
        options.period = parseSeconds(option, arguments.value());
    } else if (option == "--rounds") {
        options.rounds = arguments.number(1, ANY);
    } else if (option == "--new") {
        options.newBelow.push_back(arguments.value());
    } else if (option == "--listed-only") {
        options.listedOnly = true;
    } else if (option == "--log") {
        options.log = arguments.value();
    } else if (option == "--max-bytes") {
        options.maxBytes = arguments.number(0, ANY);
    } else if (option == "--keep") {
        options.keep = static_cast<unsigned int>(arguments.number(0, 999));
    } else if (option == "--status") {
        options.status = arguments.value();
    } else if (option == "--rate") {
        options.bytesPerSecond = arguments.number(0, ANY);
    } else if (option == "--eager") {
        options.eager = true;
    } else if (option == "-j" || option == "--jobs") {
        options.jobs = static_cast<unsigned int>(arguments.number(1, 12));
    } else if (option == "-h" || option == "--help") {
        options.help = true;
    } else {
        throw UsageError("unknown option of watch " + quoted(option) + ": see --help");
    }
}

}  // namespace

WatchOptions parseWatchOptions(Arguments& arguments) {
    WatchOptions options;
    std::vector<std::string> operands;
    while (!options.help && arguments.takeNext()) {
        if (arguments.isOption) {
            setOption(options, arguments);
        } else {
            operands.push_back(arguments.current);
        }
    }
    if (options.help) {
        return options;
    }
    if (operands.size() != 1 || operands.front() == "-") {
        throw UsageError("watch needs one manifest, a file");
    }
    if (options.period.count() == 0) {
        throw UsageError("watch needs --every SECONDS");
    }
    if (options.listedOnly && !options.newBelow.empty()) {
        throw UsageError("--new or --listed-only, not both");
    }
    if (options.log.empty() && (options.maxBytes != 0 || options.keep != 1)) {
        throw UsageError("--max-bytes and --keep are about --log");
    }
    options.manifest = operands.front();
    return options;
}

}  // namespace manifest
