#include <string>
#include <vector>

#include <tests/faults/Sweep.h>
#include <tests/support/Bounded.h>

// faultSweep [part of an operation's name]
int main(int count, char** arguments) {
    using namespace ovra::faults;
    ovra::test::Watchdog const watchdog(30 * ovra::test::deadlineSeconds());
    std::vector<Operation> operations = fileOperations();
    for (auto const& more : {logOperations(), taskOperations()}) {
        operations.insert(operations.end(), more.begin(), more.end());
    }
    return sweep(operations, count > 1 ? arguments[1] : "") ? 0 : 1;
}
