#include <benchmarks/support/Run.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace ovra::bench {

std::map<std::string, Run::Measure>& Run::all() {
    static std::map<std::string, Measure> runs;
    return runs;
}

bool Run::add(std::string const& shape, std::string const& contestant, Measure measure) {
    return all().emplace(shape + "/" + contestant, std::move(measure)).second;
}

int Run::main(int argc, char** argv) {
    if (argc < 2) {
        for (auto const& [name, measure] : all()) {
            std::printf("%s\n", name.c_str());
        }
        return 0;
    }
    auto const found = all().find(argv[1]);
    if (found == all().end()) {
        std::fprintf(stderr, "%s: no such measurement\n", argv[1]);
        return 2;
    }
    Run run;
    for (int i = 2; i < argc; ++i) {
        std::string const argument = argv[i];
        std::size_t const sign = argument.find('=');
        if (sign == std::string::npos) {
            std::fprintf(stderr, "%s: not <name>=<number>\n", argv[i]);
            return 2;
        }
        run.numbers[argument.substr(0, sign)] = std::atoll(argument.c_str() + sign + 1);
    }
    found->second(run);
    return 0;
}

std::int64_t Run::number(std::string const& name, std::int64_t otherwise) {
    auto const found = numbers.find(name);
    return found != numbers.end() ? found->second : otherwise;
}

void Run::report(char const* figure, double value) {
    std::printf("%s %.12g\n", figure, value);
}

void Run::fail(char const* reason) {
    std::fprintf(stderr, "%s\n", reason);
    std::exit(1);
}

}  // namespace ovra::bench
