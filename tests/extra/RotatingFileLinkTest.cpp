// A log file that is reached by many links.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <tests/support/Bounded.h>

#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

class RotatingFileLinkTest : public test::BoundedTest {
protected:
    // "link-1" leads to "link-2", and so on, and the last one to "x".
    std::string linksTo(int count) const {
        for (int link = 1; link <= count; ++link) {
            std::filesystem::create_symlink(
                link == count ? "x" : "link-" + std::to_string(link + 1),
                directory.path("link-" + std::to_string(link)));
        }
        return directory.path("link-1");
    }

    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

TEST_F(RotatingFileLinkTest, AsManyLinksAreFollowedAsTheSystemFollows) {
    std::string const first = linksTo(40);
    RotatingFileLogHandler sink(first, plain(10));
    put(sink, "a line");
    put(sink, "another");
    EXPECT_EQ(contentOf(path + ".1"), "a line\n");
    EXPECT_EQ(contentOf(path), "another\n");
    EXPECT_TRUE(std::filesystem::is_symlink(directory.path("link-40")));
}

// The system renames no link of a file to another link of it, and reports success.
TEST_F(RotatingFileLinkTest, MovesAFileThatItsOlderNamesAreLinksOf) {
    for (unsigned int generations : {1u, 2u}) {
        SCOPED_TRACE(generations);
        writeFile(path, "a line\n");
        for (unsigned int older = 1; older <= generations + 1; ++older) {
            std::filesystem::remove(path + "." + std::to_string(older));
            std::filesystem::create_hard_link(path, path + "." + std::to_string(older));
        }
        RotatingFileLogHandler sink(path, plain(10, generations));
        put(sink, "another");
        EXPECT_EQ(contentOf(path), "another\n");
        EXPECT_EQ(contentOf(path + ".1"), "a line\n");
        put(sink, "a third");
        EXPECT_EQ(contentOf(path), "a third\n");
        EXPECT_EQ(contentOf(path + ".1"), "another\n");
    }
}

}  // namespace
}  // namespace ovra::extra
