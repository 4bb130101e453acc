#include <dlfcn.h>
#include <gtest/gtest.h>
#include <ovra/ovra.h>

namespace ovra::abi::test {

namespace {

TEST(GlueTest, IsFoundByItsPlainNameAndCalled) {
    void* const found = dlsym(RTLD_DEFAULT, "ovra_xcode_target_object_glue");
    ASSERT_EQ(found, reinterpret_cast<void*>(&ovra_xcode_target_object_glue));
    ovra_xcode_target_object_glue();
}

}  // namespace

}  // namespace ovra::abi::test
