#include <cstdio>
#include <vector>

#include <ovra/extra.h>

#include <tests/extra/Operations.h>
#include <tests/faults/Sweep.h>
#include <tests/support/Bounded.h>
#include <tests/support/Contained.h>

namespace {

char const* outcomeNameOf(int error) {
    return ovra::extra::outcomeName(ovra::extra::outcomeOf(error));
}

}  // namespace

// extraFaultSweep [part of an operation's name]
int main(int count, char** arguments) {
    using namespace ovra::faults;
    if (!ovra::test::contain().empty()) {
        std::printf("Skipped: %s\n", ovra::test::contain().c_str());
        return 0;
    }
    ovra::test::Watchdog const watchdog(30 * ovra::test::deadlineSeconds());
    std::vector<Operation> operations;
    for (auto const& more : {extraFileOperations()}) {
        operations.insert(operations.end(), more.begin(), more.end());
    }
    return sweep(operations, count > 1 ? arguments[1] : "", outcomeNameOf) ? 0 : 1;
}
