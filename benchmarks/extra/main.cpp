#include <cstdio>

#include <benchmark/benchmark.h>

#include <tests/support/Contained.h>

// Trees are removed here: only what this process has made may be within reach.
int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (!ovra::test::contain().empty()) {
        std::printf("Skipped: %s\n", ovra::test::contain().c_str());
        return 0;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
