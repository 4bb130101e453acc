#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

#include <benchmarks/log/LogBenchmarks.h>

namespace ovra::bench {

namespace {

constexpr char LINE[] = "[bench:INFO] Moving current task 1000 into EXECUTING state.\n";

int file = -1;

// One system call for each line, with nothing around it: the limit.
bool add() {
    for (int threads : {1, 4}) {
        addLogBenchmark(
            threads == 1 ? "sink/system calls" : "sink/system calls/threads:4", threads,
            [](benchmark::State const&) {
                file = ::open(logFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            },
            [](int, char const*) {
                [[maybe_unused]] ssize_t const ignored = ::write(file, LINE, sizeof LINE - 1);
            },
            [](benchmark::State const&) { ::close(file); });
    }
    return true;
}

[[maybe_unused]] bool const isAdded = add();

}  // namespace

}  // namespace ovra::bench
