#include <ovra/fs/FilePath.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/fs/FilePathModel.h>

namespace ovra::fs {
namespace {

using test::componentsOf;

struct ResolveRow {
    std::string base;
    std::string other;
    std::string result;
};

std::vector<ResolveRow> const& resolveTable() {
    static std::vector<ResolveRow> const table = {
        {"/data", "logs/a.txt", "/data/logs/a.txt"},
        {"/data/", "a", "/data/a"},
        {"/data", "/tmp/x", "/tmp/x"},
        {"/data", "C:/x", "C:/x"},
        {"", "a", "/a"},
        {"", "b", "/b"},
        {"/a/b", "..", "/a/b/.."},
        {"/data", "", "/data/"},
        {"/data/", "", "/data/"},
        {"", "", "/"},
        {"/", "a", "/a"},
        {"/", "", "/"},
        {"a", "b", "a/b"},
        {"a//", "b", "a//b"},
        {"a", "b/", "a/b/"},
        {"a", ".//b/../c", "a/.//b/../c"},
        {"a", "/", "/"},
        {"a", "//b", "//b"},
        {"a", "C:", "C:"},
        {"a", "1:/y", "1:/y"},
        {"a", "C:x/y", "a/C:x/y"},
        {"a", ":", "a/:"},
        {"C:", "a", "C:/a"},
        {"C:/", "a", "C:/a"},
        {"a\\", "b", "a\\/b"},
    };
    return table;
}

TEST(FilePathResolveTest, ResolvesTextAgainstThePath) {
    for (ResolveRow const& row : resolveTable()) {
        FilePath const base(row.base);
        FilePath const result = base.Resolve(row.other);
        EXPECT_EQ(result.Path(), row.result) << row.base << " with " << row.other;
        EXPECT_EQ(componentsOf(result), componentsOf(FilePath(row.result))) << row.result;
        EXPECT_EQ(base.Path(), row.base);
    }
}

TEST(FilePathResolveTest, ResolvesAnotherPathAgainstThePath) {
    for (ResolveRow const& row : resolveTable()) {
        for (bool const cached : {false, true}) {
            FilePath const base(row.base);
            FilePath const other(row.other);
            if (cached) {
                base.Cache();
                other.Cache();
            }
            FilePath const result = base.Resolve(other);
            EXPECT_EQ(result.Path(), row.result) << row.base << " with " << row.other;
            EXPECT_EQ(componentsOf(result), componentsOf(FilePath(row.result))) << row.result;
            EXPECT_EQ(base.Path(), row.base);
            EXPECT_EQ(other.Path(), row.other);
        }
    }
}

TEST(FilePathResolveTest, ResolvesALiteral) {
    EXPECT_EQ(FilePath("/a").Resolve("b").Path(), "/a/b");
}

TEST(FilePathResolveTest, ResolvesItselfAgainstItself) {
    FilePath const path("a/b");
    EXPECT_EQ(path.Resolve(path).Path(), "a/b/a/b");
    EXPECT_EQ(path.Resolve(path.Path()).Path(), "a/b/a/b");
}

TEST(FilePathResolveTest, FoldsDotsAway) {
    struct Row {
        std::string path;
        std::string resolved;
    };
    for (Row const& row : std::vector<Row>{
             {"/a/b/../c", "/a/c"},
             {"./a/./b", "a/b"},
             {"/", "/"},
             {"C:/x/../y", "C:/y"},
             {"C:", "C:/"},
             {"//a", "//a"},
             {"/a/b/..", "/a"},
             {"/..", "/.."},
             {"../a", "../a"},
             {"a/../..", ".."},
             {"a//b", "a//b"},
             {"a//../b", "a/b"},
             {"a/b/", "a/b"},
             {"", "."},
             {".", "."},
             {"a/..", "."},
             {"/../x", "/../x"},
             {"a/../../b", "../b"},
             // The root stays, and has its "/" only when it stands alone.
             {"/a/..", "/"},
             {"/a", "/a"},
             {"/.", "/"},
             {"/./", "/"},
             {"/a/b/../..", "/"},
             {"/a/../..", "/.."},
             {"/../..", "/../.."},
             {"/../../a/..", "/../.."},
             {"C:/", "C:/"},
             {"C:/a/..", "C:/"},
             {"C:/..", "C:/.."},
             {"C:/.", "C:/"},
             {"C:x/..", "."},
             {"C:x", "C:x"},
             // A drive is a root in the first place alone.
             {"a/C:/..", "a"},
             {"./C:", "C:"},
             {"/C:/..", "/"},
             // The empty name between doubled separators is a name like any other.
             {"//", "/"},
             {"///", "//"},
             {"//..", "/"},
             {"//../a", "/a"},
             {"///..", "/"},
             {"/a//", "/a/"},
             {"a//", "a/"},
             {"a//..", "a"},
             {"a/..//b", "/b"},
             {".//b", "/b"},
             {".//", "."},
             {"a/..//", "."},
             {"../..", "../.."},
             {"../a/..", ".."},
             {"../a/../b", "../b"},
             {"..//..", ".."},
             {"./..", ".."},
             {"./", "."},
             {"...", "..."},
             {"a/.../..", "a"},
             {"a/b/c/../../d", "a/d"},
             {"a\\..\\b", "a\\..\\b"},
         }) {
        FilePath const path(row.path);
        EXPECT_EQ(path.Resolved(), row.resolved) << "path \"" << row.path << '"';
        path.Cache();
        EXPECT_EQ(path.Resolved(), row.resolved) << "path \"" << row.path << "\", cached";
        EXPECT_EQ(path.Path(), row.path);
    }
}

TEST(FilePathResolveTest, FoldsVeryLongPaths) {
    constexpr int DEPTH = 100000;
    std::string down;
    std::string up;
    for (int level = 0; level < DEPTH; ++level) {
        down += "name/";
        up += "../";
    }
    EXPECT_EQ(FilePath(down + up).Resolved(), ".");
    EXPECT_EQ(FilePath("/" + down + up).Resolved(), "/");
    EXPECT_EQ(FilePath(down + up + "x").Resolved(), "x");
    EXPECT_EQ(FilePath(up + "x").Resolved(), up + "x");
    EXPECT_EQ(FilePath(std::string(DEPTH, '/') + "x").DirectoryPath(), "/");
    EXPECT_EQ(FilePath(down + "x").DirectoryPath(), down);
}

TEST(FilePathResolveTest, IsResolvedFromSeveralThreadsWithoutWriting) {
    FilePath const base("/some/directory/../with/parts");
    std::vector<std::string> results(4);
    std::vector<std::thread> threads;
    for (std::string& result : results) {
        threads.emplace_back([&base, &result] {
            for (int round = 0; round < 100; ++round) {
                FilePath const other("x/y");
                result = base.Resolved() + base.Resolve("x").Path() + base.Resolve(other).Path();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::string const& result : results) {
        EXPECT_EQ(result,
                  "/some/with/parts"
                  "/some/directory/../with/parts/x"
                  "/some/directory/../with/parts/x/y");
    }
}

}  // namespace
}  // namespace ovra::fs
