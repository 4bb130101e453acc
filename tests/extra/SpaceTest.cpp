#include <ovra/extra/Space.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <tests/fs/TemporaryDirectory.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;

bool operator==(Space const& left, Space const& right) {
    return left.totalBytes == right.totalBytes && left.freeBytes == right.freeBytes &&
           left.availableBytes == right.availableBytes && left.totalEntries == right.totalEntries &&
           left.freeEntries == right.freeEntries && left.readOnly == right.readOnly;
}

class SpaceTest : public TemporaryDirectoryTest {
protected:
    // Also: `errno` is kept.
    static Outcome read(std::string const& path, Space& space) {
        errno = EDOM;
        Outcome const outcome = readSpace(path, space);
        EXPECT_EQ(errno, EDOM);
        return outcome;
    }
};

// What df says of the path, in the order of the columns asked for.
std::array<std::uint64_t, 4> df(std::string const& path) {
    std::string const command =
        "df -B1 --output=size,avail,itotal,iavail '" + path + "' | tail -n 1";
    FILE* const pipe = popen(command.c_str(), "re");
    std::array<std::uint64_t, 4> numbers = {};
    for (std::uint64_t& number : numbers) {
        if (std::fscanf(pipe, "%" SCNu64, &number) != 1) {
            ADD_FAILURE() << "df says nothing of " << path;
        }
    }
    pclose(pipe);
    return numbers;
}

TEST_F(SpaceTest, IsWhatDfSays) {
    auto const outcome = onPrivateFileSystem(root, "size=8m,nr_inodes=100", [this] {
        writeFile(at("f"), std::string(100000, 'x'));
        Space space;
        EXPECT_EQ(read(root, space), Outcome::DONE);
        auto const [size, available, entries, freeEntries] = df(root);
        EXPECT_EQ(space.totalBytes, size);
        EXPECT_EQ(space.totalBytes, 8u << 20);
        EXPECT_EQ(space.availableBytes, available);
        EXPECT_EQ(space.totalEntries, entries);
        EXPECT_EQ(space.freeEntries, freeEntries);
        EXPECT_EQ(space.freeEntries, 98u);
        EXPECT_FALSE(space.readOnly);
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

// Whoever runs the tests may have file systems of every kind.
TEST_F(SpaceTest, IsWhatTheSystemSays) {
    for (std::string const& path : {std::string("/"), root, std::string("/proc")}) {
        struct statvfs found;
        struct statvfs after;
        Space space;
        do {  // Until nobody else has written meanwhile.
            ASSERT_EQ(statvfs(path.c_str(), &found), 0);
            ASSERT_EQ(read(path, space), Outcome::DONE);
            ASSERT_EQ(statvfs(path.c_str(), &after), 0);
        } while (found.f_bfree != after.f_bfree || found.f_bavail != after.f_bavail ||
                 found.f_ffree != after.f_ffree);
        std::uint64_t const blockBytes = found.f_frsize;
        EXPECT_EQ(space.totalBytes, blockBytes * found.f_blocks);
        EXPECT_EQ(space.freeBytes, blockBytes * found.f_bfree);
        EXPECT_EQ(space.availableBytes, blockBytes * found.f_bavail);
        EXPECT_EQ(space.totalEntries, found.f_files);
        EXPECT_EQ(space.freeEntries, found.f_ffree);
        EXPECT_EQ(space.readOnly, (found.f_flag & ST_RDONLY) != 0);
    }
}

TEST_F(SpaceTest, ShrinksWithWhatIsWritten) {
    auto const outcome = onPrivateFileSystem(root, "size=1m", [this] {
        Space before;
        Space after;
        EXPECT_EQ(read(root, before), Outcome::DONE);
        writeFile(at("f"), std::string(512 << 10, 'x'));
        EXPECT_EQ(read(at("f"), after), Outcome::DONE);
        EXPECT_EQ(before.freeBytes - after.freeBytes, 512u << 10);
        EXPECT_EQ(before.availableBytes - after.availableBytes, 512u << 10);
        EXPECT_EQ(before.freeEntries - after.freeEntries, 1u);
        EXPECT_EQ(before.totalBytes, after.totalBytes);
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

TEST_F(SpaceTest, OfAFileSystemThatIsReadOnly) {
    auto const outcome = onPrivateFileSystem(root, "ro", [this] {
        Space space;
        EXPECT_EQ(read(root, space), Outcome::DONE);
        EXPECT_TRUE(space.readOnly);
    });
    if (!outcome.skipReason.empty()) {
        GTEST_SKIP() << outcome.skipReason;
    }
    EXPECT_TRUE(outcome.passed);
}

TEST_F(SpaceTest, FollowsLinksAndTakesEveryKind) {
    writeFile(at("f"));
    makePipe(at("pipe"));
    makeLink("f", at("link"));
    for (char const* const name : {"f", "pipe", "link", "."}) {
        Space space;
        EXPECT_EQ(read(at(name), space), Outcome::DONE) << name;
        EXPECT_NE(space.totalBytes, 0u);
    }
}

TEST_F(SpaceTest, WhatFailsLeavesItAsItWas) {
    writeFile(at("f"));
    makeLink("nowhere", at("dangling"));
    struct Row {
        std::string path;
        Outcome outcome;
    };
    for (Row const& row : {Row{"", Outcome::MISSING},
                           {at("missing"), Outcome::MISSING},
                           {at("dangling"), Outcome::MISSING},
                           {at("f/f"), Outcome::MISSING},
                           {at(std::string(256, 'x')), Outcome::NAME_TOO_LONG},
                           {at("f") + '\0' + "g", Outcome::REFUSED}}) {
        Space const before = {1, 2, 3, 4, 5, true};
        Space space = before;
        EXPECT_EQ(outcomeName(read(row.path, space)), std::string(outcomeName(row.outcome)));
        EXPECT_TRUE(space == before) << row.path;
    }
}

}  // namespace

}  // namespace ovra::extra
