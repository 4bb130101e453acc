#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>

#include <tests/abi/Consumer.h>

namespace ovra::abi::test {

namespace {

constexpr std::int64_t FIVE_GIBIBYTES = std::int64_t{5} << 30;
constexpr std::int64_t IN_2040 = 2208988800;

class WidthsTest : public ::testing::Test {
protected:
    WidthsTest() {
        EXPECT_NE(mkdtemp(directory.data()), nullptr);
        int const file = open(path().c_str(), O_WRONLY | O_CREAT, 0600);
        EXPECT_NE(file, -1);
        isMade = ftruncate(file, FIVE_GIBIBYTES) == 0;
        struct timespec const times[] = {{IN_2040, 0}, {IN_2040, 0}};
        EXPECT_EQ(futimens(file, times), 0);
        struct stat status;
        EXPECT_EQ(fstat(file, &status), 0);
        isDated = status.st_mtim.tv_sec == IN_2040;
        close(file);
    }
    ~WidthsTest() override {
        unlink(path().c_str());
        rmdir(directory.c_str());
    }

    std::string path() const { return directory + "/" + name; }

    std::string directory = std::string(::testing::TempDir()) + "ovra-widths-XXXXXX";
    std::string const name = "file";
    bool isMade = false;
    bool isDated = false;
};

TEST_F(WidthsTest, ConsumersDifferInTheirOwnTypesWhereTheSystemDoes) {
    Observation const plain = observeAsPlainConsumer(directory.c_str(), name.c_str());
    Observation const wide = observeAsWideConsumer(directory.c_str(), name.c_str());
    EXPECT_EQ(wide.offsetBytes, 8u);
    EXPECT_EQ(wide.timeBytes, 8u);
    EXPECT_EQ(plain.offsetBytes, sizeof(long));
    EXPECT_EQ(plain.timeBytes, sizeof(long));
}

TEST_F(WidthsTest, ClassesHaveOneSizeForAllConsumers) {
    Observation const plain = observeAsPlainConsumer(directory.c_str(), name.c_str());
    Observation const wide = observeAsWideConsumer(directory.c_str(), name.c_str());
    if (plain.offsetBytes == wide.offsetBytes && plain.timeBytes == wide.timeBytes) {
        GTEST_SKIP()
            << "here all consumers have the same types; FixedWidths.cpp looks at the headers";
    }
    EXPECT_TRUE(std::equal(std::begin(plain.classBytes), std::end(plain.classBytes),
                           std::begin(wide.classBytes)));
}

TEST_F(WidthsTest, FileOfMoreThanFourGibibytesIsSeenByAllConsumers) {
    if (!isMade) {
        GTEST_SKIP() << "no file of that size can be made in " << directory;
    }
    for (auto* const observe : {observeAsPlainConsumer, observeAsWideConsumer}) {
        Observation const seen = observe(directory.c_str(), name.c_str());
        EXPECT_EQ(seen.sizeBytes, FIVE_GIBIBYTES);
        EXPECT_TRUE(seen.isFile);
        EXPECT_TRUE(seen.isListed);
    }
}

TEST_F(WidthsTest, TimeAfter2038IsSeenByAllConsumers) {
    if (!isDated) {
        GTEST_SKIP() << "no file can be dated 2040 in " << directory;
    }
    for (auto* const observe : {observeAsPlainConsumer, observeAsWideConsumer}) {
        EXPECT_EQ(observe(directory.c_str(), name.c_str()).modificationTime, IN_2040);
    }
}

}  // namespace

}  // namespace ovra::abi::test
