#include <dlfcn.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <tests/fs/TemporaryDirectory.h>

namespace ovra::extra {

namespace {

std::string mappedLibraries() {
    std::ifstream maps("/proc/self/maps");
    std::string found;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("libovra") != std::string::npos) {
            found += line + "\n";
        }
    }
    return found;
}

class UnloadTest : public fs::test::TemporaryDirectoryTest {};

TEST_F(UnloadTest, NothingStaysMappedAfterwards) {
    ASSERT_EQ(mappedLibraries(), "");
    for (int round = 0; round < 3; ++round) {
        void* const plugin = dlopen(OVRA_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(plugin, nullptr) << dlerror();
        auto* const use = reinterpret_cast<bool (*)(char const*)>(dlsym(plugin, "useLibrary"));
        ASSERT_NE(use, nullptr);
        EXPECT_NE(mappedLibraries().find("libovra-extra.so.0"), std::string::npos);
        {
            fs::test::OrdinaryUser const user(
                root);  // It removes a tree: see ../support/Contained.h.
            EXPECT_TRUE(use(root.c_str()));
        }
        EXPECT_EQ(dlclose(plugin), 0);
        EXPECT_EQ(mappedLibraries(), "");
    }
}

}  // namespace

}  // namespace ovra::extra
