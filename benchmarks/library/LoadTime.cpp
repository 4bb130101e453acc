#include <dlfcn.h>

#include <cstdio>
#include <string>

#include <benchmarks/support/Clock.h>

// Prints how many nanoseconds it takes to load the library named, once: a process is good for one
// measurement, since the libraries that one loads with it stay in memory.
int main(int count, char** arguments) {
    if (count != 2) {
        std::fputs("usage: benchmark-load <library>\n", stderr);
        return 2;
    }
    std::string const library = arguments[1];
    auto const begin = ovra::bench::Clock::now();
    void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    double const seconds = ovra::bench::secondsBetween(begin, ovra::bench::Clock::now());
    if (handle == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    std::printf("%.0f\n", seconds * 1e9);
    return 0;
}
