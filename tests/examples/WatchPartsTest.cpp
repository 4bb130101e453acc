// The parts of `ovra-manifest watch` that need no process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <examples/manifest/watch/Background.h>
#include <examples/manifest/watch/FileHash.h>
#include <examples/manifest/watch/Findings.h>
#include <examples/manifest/watch/JsonText.h>
#include <examples/manifest/watch/ListedFiles.h>
#include <examples/manifest/watch/Pace.h>
#include <examples/manifest/watch/TreeSearch.h>
#include <examples/manifest/watch/WatchStatus.h>
#include <tests/examples/Digests.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace manifest;
using namespace ovra::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class PaceTest : public BoundedTest {};

TEST_F(PaceTest, WithoutARateNothingWaits) {
    Pace pace(0);
    EXPECT_TRUE(pace.take(1000000000));
    EXPECT_TRUE(pace.take(1000000000));
    EXPECT_EQ(2u, pace.steps());
}

TEST_F(PaceTest, NeverFasterThanTheRate) {
    Pace pace(10000);
    auto const start = std::chrono::steady_clock::now();
    std::thread other([&] { pace.take(500); });
    for (int piece = 0; piece < 5; ++piece) {
        EXPECT_TRUE(pace.take(100));
        EXPECT_TRUE(pace.take(0)) << "what reads nothing costs nothing";
    }
    other.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(PaceTest, StopEndsTheWaitForGood) {
    Pace pace(1);
    std::thread waiting([&] { EXPECT_FALSE(pace.take(1000000)); });
    yieldUntil([&] { return pace.steps() > 1; });  // It waits, and counts up meanwhile.
    EXPECT_FALSE(pace.isStopped());
    pace.stop();
    waiting.join();
    EXPECT_TRUE(pace.isStopped());
    EXPECT_FALSE(pace.take(0));
    EXPECT_FALSE(pace.take(1));
}

class ListedFilesTest : public BoundedTest {
protected:
    ListedFiles read(std::string const& content) {
        scratch.write("manifest", content);
        return ListedFiles(scratch.path("manifest"), pace);
    }

    ScratchDirectory scratch;
    Pace pace{0};
};

TEST_F(ListedFilesTest, AreSortedAndFoundByPath) {
    ListedFiles const files = read("# comment\n\n" + ALPHA + "  b\n" + BETA + " *a\nnonsense\n\\" +
                                   ALPHA + "  c\\nd\r\n");
    ASSERT_EQ(3u, files.size());
    EXPECT_EQ("a", files.path(0));
    EXPECT_EQ("b", files.path(1));
    EXPECT_EQ("c\nd", files.path(2));
    EXPECT_TRUE(files.matches(0, BETA));
    EXPECT_FALSE(files.matches(0, ALPHA));
    EXPECT_TRUE(files.contains("c\nd"));
    EXPECT_FALSE(files.contains("c"));
    EXPECT_FALSE(files.contains("d"));
    EXPECT_EQ(0u, files.numberOf(""));
    EXPECT_EQ(1u, files.numberOf("b"));
    EXPECT_EQ(2u, files.numberOf("ba"));
    EXPECT_EQ(3u, files.numberOf("z"));
}

TEST_F(ListedFilesTest, FirstEntryOfAPathCounts) {
    ListedFiles const files = read(BETA + "  a\n" + ALPHA + "  a\n" + ALPHA + "  a\n");
    ASSERT_EQ(1u, files.size());
    EXPECT_TRUE(files.matches(0, BETA));
}

TEST_F(ListedFilesTest, DigestsMayBeInUpperCase) {
    std::string upper = ALPHA;
    for (char& digit : upper) {
        digit = digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
    }
    EXPECT_TRUE(read(upper + "  a\n").matches(0, ALPHA));
}

TEST_F(ListedFilesTest, DirectoriesAreTheOutermostOnes) {
    struct {
        std::vector<std::string> paths;
        std::vector<std::string> directories;
    } const rows[] = {
        {{"a"}, {""}},
        {{"a", "d/b"}, {""}},
        {{"d/b", "d/e/c"}, {"d/"}},
        {{"d/e/a", "d/f/a"}, {"d/e/", "d/f/"}},
        {{"d/a", "d-e/a", "d/f/a"}, {"d-e/", "d/"}},
        {{"./a", "./d/b"}, {"./"}},
        {{"/a", "/d/b", "c"}, {"", "/"}},
        {{"/d/b", "c"}, {"", "/d/"}},
        {{"../a", "d/b"}, {"../", "d/"}},
    };
    for (auto const& row : rows) {
        std::string lines;
        for (auto const& path : row.paths) {
            lines += ALPHA + "  " + path + '\n';
        }
        EXPECT_EQ(row.directories, read(lines).directories()) << lines;
    }
}

TEST_F(ListedFilesTest, WhatCannotBeReadThrows) {
    EXPECT_THROW(read("nonsense\n"), std::runtime_error);
    EXPECT_THROW(read(""), std::runtime_error);
    EXPECT_THROW(ListedFiles(scratch.path(), pace), std::runtime_error);
    EXPECT_THROW(ListedFiles(scratch.path("missing"), pace), std::runtime_error);
}

class FileHashTest : public ListedFilesTest {};

TEST_F(FileHashTest, SaysWhyThereIsNoDigest) {
    scratch.write("d/a", "alpha");
    EXPECT_EQ(ALPHA, hashFile(scratch.path("d/a"), pace).digest);
    EXPECT_EQ(ovra::extra::Outcome::MISSING, hashFile(scratch.path("d/b"), pace).outcome);
    EXPECT_EQ(ovra::extra::Outcome::MISSING, hashFile(scratch.path("d/a/b"), pace).outcome);
    EXPECT_EQ(ovra::extra::Outcome::WRONG_KIND, hashFile(scratch.path("d"), pace).outcome);
    EXPECT_EQ(ovra::extra::Outcome::WRONG_KIND, hashFile("/dev/null", pace).outcome);
    pace.stop();
    FileHash const stopped = hashFile(scratch.path("d/a"), pace);
    EXPECT_EQ(ovra::extra::Outcome::DONE, stopped.outcome);
    EXPECT_THAT(stopped.digest, IsEmpty());
}

class TreeSearchTest : public ListedFilesTest {
protected:
    bool search(std::string const& directory) {
        found.clear();
        failed.clear();
        TreeSearch search(
            pace, [this](std::string const& path) { found.push_back(path); },
            [this](std::string const& path, ovra::extra::Outcome outcome) {
                failed[path] = outcome;
            });
        search.leaveOut(scratch.path("d/out"));
        return search.search(directory);
    }

    std::vector<std::string> found;
    std::map<std::string, ovra::extra::Outcome> failed;
};

TEST_F(TreeSearchTest, FindsFilesAndFollowsNoLinks) {
    for (auto const* name : {"d/a", "d/e/f/b", "d/out", "d/e/out"}) {
        scratch.write(name, "x");
    }
    scratch.link("a", "d/link");
    scratch.link("..", "d/e/loop");
    EXPECT_TRUE(search(scratch.path("d/")));
    EXPECT_THAT(found, UnorderedElementsAre(scratch.path("d/a"), scratch.path("d/e/f/b"),
                                            scratch.path("d/e/out")));
    EXPECT_THAT(failed, IsEmpty());
}

TEST_F(TreeSearchTest, NamesWhatItCannotRead) {
    EXPECT_FALSE(search(scratch.path("no/")));
    EXPECT_THAT(failed, ElementsAre(std::pair(scratch.path("no/"), ovra::extra::Outcome::MISSING)));
    pace.stop();
    scratch.write("d/a", "x");
    EXPECT_FALSE(search(scratch.path("d/")));
    EXPECT_THAT(found, IsEmpty());
}

TEST(JsonTextTest, EscapesWhatItMust) {
    struct {
        std::string bytes;
        char const* json;
    } const rows[] = {
        {"", R"("")"},
        {"a/b c", R"("a/b c")"},
        {"\"\\", R"("\"\\")"},
        {"\n\x1f\x7f", R"("\u000a\u001f\u007f")"},
        {std::string("\0", 1), R"("\u0000")"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
        {"\xff", R"("\udcff")"},
        {"\xc3", R"("\udcc3")"},
        {"\xc0\xaf", R"("\udcc0\udcaf")"},
        {"\xed\xb2\x80", R"("\udced\udcb2\udc80")"},
        {"\xf4\x90\x80\x80", R"("\udcf4\udc90\udc80\udc80")"},
        {"\xe0\x80\x80", R"("\udce0\udc80\udc80")"},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(row.json, jsonString(row.bytes));
        EXPECT_EQ(row.bytes, JsonReader(row.json).string());
    }
}

TEST(JsonTextTest, ReadsBackWhatItWrites) {
    RandomSource random(runSeed());
    for (int round = 0; round < scaled(5000); ++round) {
        std::string bytes;
        for (auto length = random.below(20); length > 0; --length) {
            bytes += static_cast<char>(random.below(2) == 0 ? random.below(256)
                                                            : 0xc0 + random.below(64));
        }
        std::string const json = jsonString(bytes) + ", 17 }";
        JsonReader reader(json);
        ASSERT_EQ(bytes, reader.string()) << json;
        EXPECT_TRUE(reader.take(","));
        EXPECT_EQ(17u, reader.number());
        EXPECT_FALSE(reader.take("]"));
        EXPECT_TRUE(reader.take("}"));
    }
}

TEST(JsonTextTest, RefusesWhatIsNoString) {
    for (auto const* text : {"", "a", "\"", "\"a", "\"\\", "\"\\n\"", "\"\\u12", "\"\\u00g0\"",
                             "\"\\u0100\"", "\"\\udc7f\"", "17"}) {
        EXPECT_FALSE(JsonReader(text).string()) << text;
    }
    EXPECT_FALSE(JsonReader("").number());
    EXPECT_FALSE(JsonReader("-1").number());
    EXPECT_FALSE(JsonReader("99999999999999999999").number());
}

TEST(WatchStatusJsonTest, IsReadBackAndNothingElseIs) {
    Findings findings([](auto const&...) {});
    findings.restore("d/a", {Finding::CHANGED, ALPHA});
    findings.restore("d/\xff", {Finding::UNREADABLE, "DENIED"});
    WatchStatus const status = {"manifest", 7, "now", "then", 3, 1, "d/b"};
    std::string const json = toJson(status, findings);

    std::map<std::string, Finding> read;
    auto const keep = [&read](std::string const& path, Finding const& finding) {
        read[path] = finding;
    };
    auto const again = fromJson(json, keep);
    ASSERT_TRUE(again);
    EXPECT_EQ(json, toJson(*again, findings));
    EXPECT_EQ(2u, read.size());
    EXPECT_TRUE((read["d/\xff"] == Finding{Finding::UNREADABLE, "DENIED"}));

    for (std::size_t length = 0; length + 1 < json.size(); ++length) {
        EXPECT_FALSE(fromJson(json.substr(0, length), keep)) << json.substr(0, length);
    }
}

TEST(BackgroundTest, ConcernsTheCallingThreadOnly) {
    int const before = getpriority(PRIO_PROCESS, 0);
    int nice = 0;
    long disk = 0;
    std::thread([&] {
        giveWay();
        nice = getpriority(PRIO_PROCESS, 0);
        disk = syscall(SYS_ioprio_get, 1, 0);
    }).join();
    EXPECT_EQ(19, nice);
    EXPECT_EQ(3, disk >> 13) << "the idle class";
    EXPECT_EQ(before, getpriority(PRIO_PROCESS, 0));
}

}  // namespace
