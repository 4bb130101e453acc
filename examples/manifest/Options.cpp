#include "Options.h"

#include <cstddef>
#include <utility>

#include "Quote.h"

namespace manifest {

char const HELP_TEXT[] =
    R"(Usage: ovra-manifest create DIR... [-o FILE] [--jobs N] [--first PATH]
                                   [--log PATH] [--verbose]
       ovra-manifest check FILE [--jobs N] [--log PATH] [--verbose]

create: prints the SHA-256 digests of the regular files below each DIR, sorted by
path, in the format of sha256sum. Symbolic links below DIR are not followed and
not listed; neither are the files that -o and --log name.
check: verifies the manifest FILE ("-": standard input) as sha256sum -c does.

  -o FILE       write the manifest to FILE, which appears only when it is complete
  --jobs N      hash with N threads (12 at most) instead of one
  --first PATH  hash what lies below PATH first; spell PATH as DIR is spelt
  --log PATH    log to the file PATH, or to ovra.log in the directory PATH
  --verbose     log to standard output; create then needs -o
  --help, --version

Exit status: 0 when all is well, 1 when a file could not be read or differs,
2 when called wrongly, 130 after Ctrl-C. A second Ctrl-C ends it at once.
)";

namespace {

unsigned int parseJobs(std::string const& text) {
    bool const isNumber =
        !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    unsigned long const jobs = isNumber && text.size() <= 6 ? std::stoul(text) : 0;
    if (jobs == 0) {
        throw UsageError("--jobs needs a number from 1 up, not " + quoted(text));
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
        if (isOption && current[1] == '-' && equals != std::string::npos) {
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
    std::vector<std::string> operands;
    Arguments arguments(list);
    while (arguments.takeNext()) {
        std::string const& argument = arguments.current;
        if (!arguments.isOption) {
            operands.push_back(argument);
        } else if (argument == "-o") {
            options.output = arguments.value();
        } else if (argument == "--jobs") {
            options.jobs = parseJobs(arguments.value());
        } else if (argument == "--first") {
            options.first = arguments.value();
        } else if (argument == "--log") {
            options.log = arguments.value();
        } else if (argument == "--verbose") {
            options.verbose = true;
        } else if (argument == "--help" || argument == "--version") {
            options.command = argument == "--help" ? Options::HELP : Options::VERSION;
            return options;
        } else {
            throw UsageError("unknown option " + quoted(argument));
        }
    }
    setOperands(options, std::move(operands));
    return options;
}

}  // namespace manifest
