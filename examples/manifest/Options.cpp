#include "Options.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <thread>
#include <utility>

#include "Arguments.h"
#include "Quote.h"

namespace manifest {

char const HELP_TEXT[] =
    R"(Usage: ovra-manifest create DIR... [-o FILE] [--jobs N] [--first PATH]
                                   [--log PATH] [--verbose]
       ovra-manifest check FILE [--quiet|--status] [--strict] [--ignore-missing]
                                [--new DIR] [--jobs N] [--log PATH] [--verbose]
       ovra-manifest watch FILE --every SECONDS [--rounds N] [--status FILE]
                                [--new DIR|--listed-only] [--rate BYTES]
                                [--eager] [--jobs N]
                                [--log PATH [--max-bytes N] [--keep N]]

create: prints the SHA-256 digests of the regular files below each DIR, sorted by
path, in the format of sha256sum. Symbolic links below DIR are not followed and
not listed; neither are the files that -o and --log name. A directory that
several DIRs reach is listed once.
check: verifies the manifest FILE ("-": standard input) as sha256sum -c does.
watch: verifies the manifest FILE again and again, as a service. Names each file
that is changed, missing, unreadable or new once, and again when that changes.

  -o FILE           write the manifest to FILE, which appears only when it is
                    complete; a link is followed
  -j, --jobs N      hash with N threads, 12 at most; by default one a processor,
                    and for watch 1
  --first PATH      hash what lies below PATH first; spell PATH as DIR is spelt
  -q, --quiet       do not print OK for each file that is well
  --status          print no outcome: the exit status says it
  --strict          fail if a line of the manifest is not properly formatted
  --ignore-missing  do not fail because of files that do not exist
  --new DIR         also name the files below DIR that the manifest does not list;
                    spell DIR as in the manifest. watch looks below all directories
                    of the manifest by default, and takes several --new DIR
  --log PATH        log to the file PATH, or to ovra.log in the directory PATH
  --verbose         log to standard output; create then needs -o
  -h, --help; --version

Of watch only:
  --every SECONDS   begin a round so often
  --rounds N        end after N rounds, with 1 if not all is well
  --status FILE     keep what was found in FILE, for people and for the next run
  --listed-only     do not look for new files
  --rate BYTES      read at most so many bytes in a second
  --eager           do not give way to other programs while hashing
  --max-bytes N     move the log to PATH.1 before it grows beyond N bytes
  --keep N          keep N moved logs, by default 1
SIGHUP opens the log again, SIGUSR1 shows what runs and waits, SIGUSR2 begins a
round, SIGTERM ends it.

Exit status: 0 when all is well, 1 when a file could not be read, differs or is
new, 2 when called wrongly, 130 after Ctrl-C. A second Ctrl-C ends create and
check at once.
)";

namespace {

constexpr std::uint64_t ANY = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t MOST_JOBS = 12;

void setOperands(Options& options, std::vector<std::string> operands) {
    if (operands.empty()) {
        throw UsageError("create, check or watch? See --help");
    }
    std::string const command = operands.front();
    operands.erase(operands.begin());
    if (command == "watch") {
        throw UsageError("watch comes first: ovra-manifest watch MANIFEST --every SECONDS");
    }
    if (command == "create") {
        options.command = Options::CREATE;
        if (operands.empty()) {
            throw UsageError("create needs a directory");
        }
        if (options.quiet || options.status || options.strict || options.ignoreMissing ||
            !options.newBelow.empty()) {
            throw UsageError(
                "--quiet, --status, --strict, --ignore-missing and --new belong to check");
        }
        if (options.verbose && options.output.empty()) {
            throw UsageError("create --verbose needs -o: log lines go to standard output");
        }
        for (auto const& directory : operands) {
            if (directory.empty()) {
                throw UsageError("an empty name is no directory");
            }
        }
        options.directories = std::move(operands);
    } else if (command == "check") {
        options.command = Options::CHECK;
        if (operands.size() != 1) {
            throw UsageError("check needs one manifest");
        }
        if (options.quiet && options.status) {
            throw UsageError("--quiet or --status, not both");
        }
        if (!options.output.empty() || !options.first.empty()) {
            throw UsageError("-o and --first belong to create");
        }
        options.manifest = operands.front();
    } else {
        throw UsageError("unknown command " + quoted(command) + ": create, check or watch?");
    }
}

}  // namespace

Options parseOptions(std::vector<std::string> const& list) {
    Options options;
    if (!list.empty() && list.front() == "watch") {
        Arguments arguments(list, 1);
        options.watch = parseWatchOptions(arguments);
        options.command = options.watch.help ? Options::HELP : Options::WATCH;
        return options;
    }
    options.jobs = std::thread::hardware_concurrency();
    std::vector<std::string> operands;
    Arguments arguments(list);
    while (arguments.takeNext()) {
        std::string const& argument = arguments.current;
        if (!arguments.isOption) {
            operands.push_back(argument);
        } else if (argument == "-o") {
            options.output = arguments.value();
        } else if (argument == "-j" || argument == "--jobs") {
            options.jobs = static_cast<unsigned int>(std::min(arguments.number(1, ANY), MOST_JOBS));
        } else if (argument == "--first") {
            options.first = arguments.value();
        } else if (argument == "--log") {
            options.log = arguments.value();
        } else if (argument == "--verbose") {
            options.verbose = true;
        } else if (argument == "-q" || argument == "--quiet") {
            options.quiet = true;
        } else if (argument == "--status") {
            options.status = true;
        } else if (argument == "--strict") {
            options.strict = true;
        } else if (argument == "--ignore-missing") {
            options.ignoreMissing = true;
        } else if (argument == "--new") {
            options.newBelow = arguments.value();
        } else if (argument == "-h" || argument == "--help" || argument == "--version") {
            options.command = argument == "--version" ? Options::VERSION : Options::HELP;
            return options;
        } else {
            throw UsageError("unknown option " + quoted(argument) + ": see --help");
        }
    }
    setOperands(options, std::move(operands));
    return options;
}

}  // namespace manifest
