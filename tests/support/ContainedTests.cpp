#include <gtest/gtest.h>

#include <tests/support/Contained.h>

namespace ovra::test {

namespace {

// Before any fixture is made: nothing of a test may lie outside.
class Containment : public ::testing::Environment {
public:
    void SetUp() override {
        if (!contain().empty()) {
            GTEST_SKIP() << contain();
        }
    }
};

[[maybe_unused]] ::testing::Environment* const containment =
    ::testing::AddGlobalTestEnvironment(new Containment);

}  // namespace

}  // namespace ovra::test
