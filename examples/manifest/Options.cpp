#include "Options.h"

#include <cstddef>
#include <thread>
#include <utility>

#include "Quote.h"

namespace manifest {

char const HELP_TEXT[] =
    R"(Usage: ovra-manifest create DIR... [-o FILE] [--jobs N] [--first PATH]
                                   [--log PATH] [--verbose]
       ovra-manifest check FILE [--quiet|--status] [--strict] [--ignore-missing]
                                [--new DIR] [--jobs N] [--log PATH] [--verbose]

create: prints the SHA-256 digests of the regular files below each DIR, sorted by
path, in the format of sha256sum. Symbolic links below DIR are not followed and
not listed; neither are the files that -o and --log name. A directory that
several DIRs reach is listed once.
check: verifies the manifest FILE ("-": standard input) as sha256sum -c does.

  -o FILE           write the manifest to FILE, which appears only when it is
                    complete; a link is followed
  -j, --jobs N      hash with N threads, 12 at most; by default one a processor
  --first PATH      hash what lies below PATH first; spell PATH as DIR is spelt
  -q, --quiet       do not print OK for each file that is well
  --status          print no outcome: the exit status says it
  --strict          fail if a line of the manifest is not properly formatted
  --ignore-missing  do not fail because of files that do not exist
  --new DIR         also name the files below DIR that the manifest does not list;
                    spell DIR as in the manifest
  --log PATH        log to the file PATH, or to ovra.log in the directory PATH
  --verbose         log to standard output; create then needs -o
  -h, --help; --version

Exit status: 0 when all is well, 1 when a file could not be read, differs or is
new, 2 when called wrongly, 130 after Ctrl-C. A second Ctrl-C ends it at once.
)";

namespace {

unsigned int parseJobs(std::string const& option, std::string const& text) {
    bool const isNumber =
        !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    unsigned long const jobs = isNumber && text.size() <= 6 ? std::stoul(text) : 0;
    if (jobs == 0) {
        throw UsageError(option + " needs a number from 1 up, not " + quoted(text));
    }
    return static_cast<unsigned int>(jobs);
}

// Returns the arguments one by one, "--name=value" as if it were two.
class Arguments {
public:
    explicit Arguments(std::vector<std::string> const& list) : arguments(list) {}

    bool takeNext() {
        if (!attached.empty()) {
            throw UsageError(current + " takes no value");
        }
        if (next == arguments.size()) {
            return false;
        }
        current = arguments[next++];
        isOption = !optionsEnded && current.size() > 1 && current[0] == '-';
        if (isOption && current == "--") {
            optionsEnded = true;
            return takeNext();
        }
        std::size_t const equals = current.find('=');
        if (isOption && current[1] != '-' && current.size() > 2) {
            attached = "=" + current.substr(2);  // -oFILE
            current.resize(2);
        } else if (isOption && current[1] == '-' && equals != std::string::npos) {
            attached = current.substr(equals);
            current.resize(equals);
        }
        return true;
    }

    std::string value() {
        std::string result;
        if (!attached.empty()) {
            result = attached.substr(1);
            attached.clear();
        } else if (next < arguments.size()) {
            result = arguments[next++];
        }
        if (result.empty()) {
            throw UsageError(current + " needs a value");
        }
        return result;
    }

    std::string current;
    bool isOption = false;

private:
    std::vector<std::string> const& arguments;
    std::size_t next = 0;
    std::string attached;  // "=value", until it is asked for
    bool optionsEnded = false;
};

void setOperands(Options& options, std::vector<std::string> operands) {
    if (operands.empty()) {
        throw UsageError("create or check? See --help");
    }
    std::string const command = operands.front();
    operands.erase(operands.begin());
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
        throw UsageError("unknown command " + quoted(command) + ": create or check?");
    }
}

}  // namespace

Options parseOptions(std::vector<std::string> const& list) {
    Options options;
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
            options.jobs = parseJobs(argument, arguments.value());
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
