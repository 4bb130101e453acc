#include <dlfcn.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Mapped.h>

namespace ovra::extra {

namespace {

using ovra::test::mapped;
using ::testing::IsEmpty;
using ::testing::Not;

class UnloadTest : public fs::test::TemporaryDirectoryTest {};

TEST_F(UnloadTest, NothingStaysMappedAfterwards) {
    ASSERT_THAT(mapped("libovra"), IsEmpty());
    for (int round = 0; round < 3; ++round) {
        void* const plugin = dlopen(OVRA_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(plugin, nullptr) << dlerror();
        auto* const use = reinterpret_cast<bool (*)(char const*)>(dlsym(plugin, "useLibrary"));
        ASSERT_NE(use, nullptr);
        EXPECT_THAT(mapped("libovra-extra.so.0"), Not(IsEmpty()));
        {
            fs::test::OrdinaryUser const user(
                root);  // It removes a tree: see ../support/Contained.h.
            EXPECT_TRUE(use(root.c_str()));
        }
        EXPECT_EQ(dlclose(plugin), 0);
        EXPECT_THAT(mapped("libovra"), IsEmpty());
    }
}

}  // namespace

}  // namespace ovra::extra
