#include <gtest/gtest.h>

#include <cstdlib>

#include <fuzz/Fuzzer.h>

namespace {

class AbortOnFailure : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(::testing::TestPartResult const& result) override {
        if (result.failed()) {
            std::abort();
        }
    }
};

}  // namespace

// An expectation that fails ends the process, once it is printed, for the fuzzer to keep the input.
int LLVMFuzzerInitialize(int*, char***) {
    ::testing::UnitTest::GetInstance()->listeners().Append(new AbortOnFailure);
    return 0;
}
