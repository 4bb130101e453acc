#include <gtest/gtest.h>

#include "Fuzzer.h"

// An expectation that fails ends the process, for the fuzzer to keep the input.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    GTEST_FLAG_SET(break_on_failure, true);
    return 0;
}
