#include <ovra/fs/FilePath.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tests/fs/FilePathModel.h>
#include <tests/fs/FileTest.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::fs {
namespace {

using ovra::test::RandomSource;
using ovra::test::runSeed;
using ovra::test::seedNote;
using test::agreesWithTheModel;
using test::Components;
using test::componentsOf;

using Text = std::string const& (FilePath::*)() const;
using Question = bool (FilePath::*)() const;

static_assert(IS<decltype(&FilePath::Path), Text>);
static_assert(IS<decltype(&FilePath::FullPath), Text>);
static_assert(IS<decltype(&FilePath::FileName), Text>);
static_assert(IS<decltype(&FilePath::FileBaseName), Text>);
static_assert(IS<decltype(&FilePath::Extension), Text>);
static_assert(IS<decltype(&FilePath::DirectoryPath), Text>);
static_assert(IS<decltype(&FilePath::DriveLetter), Text>);
static_assert(IS<decltype(&FilePath::IsEmpty), Question>);
static_assert(IS<decltype(&FilePath::EndingSeparator), Question>);
static_assert(IS<decltype(&FilePath::IsAbsolute), Question>);
static_assert(IS<decltype(&FilePath::IsRelative), Question>);
static_assert(IS<decltype(&FilePath::Cache), void (FilePath::*)() const>);
static_assert(IS<decltype(&FilePath::SetPath), void (FilePath::*)(std::string const&)>);
static_assert(IS<decltype(&FilePath::Resolved), std::string (FilePath::*)() const>);
static_assert(IS<decltype(std::declval<FilePath&>() = std::declval<FilePath const&>()), FilePath&>);
static_assert(IS<decltype(std::declval<FilePath const&>().Resolve(std::string())), FilePath>);
static_assert(IS<decltype(std::declval<FilePath const&>().Resolve(FilePath())), FilePath>);
static_assert(std::is_constructible_v<FilePath, std::string const&>);

struct ComponentsRow {
    std::string path;
    Components components;
};

std::vector<ComponentsRow> const& componentsTable() {
    static std::vector<ComponentsRow> const table = {
        {"", {"", "", "", "", "", false}},
        {"/", {"/", "/", "/", "", "/", true}},
        {"C:", {"C:/", "C:/", "C:/", "", "C:/", true}},
        {"file.txt", {"", "file.txt", "file", ".txt", "file.txt", false}},
        {"/usr/lib/libx.so.1",
         {"/usr/lib/", "libx.so.1", "libx", ".so.1", "/usr/lib/libx.so.1", true}},
        {"a/b/", {"a/", "b", "b", "", "a/b", false}},
        {"//a//b", {"/a/", "b", "b", "", "/a/b", true}},
        {"C:/dir/x.y", {"C:/dir/", "x.y", "x", ".y", "C:/dir/x.y", true}},
        {".profile", {"", ".profile", ".profile", "", ".profile", false}},
        {"..hidden", {"", "..hidden", ".", ".hidden", "..hidden", false}},
        {"dir/..", {"dir/", "..", "..", "", "dir/..", false}},
        {"x.", {"", "x.", "x", ".", "x.", false}},
        {"./a", {"./", "a", "a", "", "./a", false}},
        // A separator at the end closes the last component; a second one adds an empty one.
        {"/a/b/", {"/a/", "b", "b", "", "/a/b", true}},
        {"a/", {"", "a", "a", "", "a", false}},
        {"C:/", {"C:/", "C:/", "C:/", "", "C:/", true}},
        {"a//", {"a/", "", "", "", "a/", false}},
        {"a/b///", {"a/b/", "", "", "", "a/b/", false}},
        {"//", {"/", "", "", "", "/", true}},
        {"////", {"/", "", "", "", "/", true}},
        {"C://", {"C:/", "", "", "", "C:/", true}},
        // Doubled separators collapse wherever they stand.
        {"a//b", {"a/", "b", "b", "", "a/b", false}},
        {"a///b//c", {"a/b/", "c", "c", "", "a/b/c", false}},
        {"///a", {"/", "a", "a", "", "/a", true}},
        {"C:///a", {"C:/", "a", "a", "", "C:/a", true}},
        // Any first component of two characters with a colon second is a root.
        {"1:/y", {"1:/", "y", "y", "", "1:/y", true}},
        {"::", {"::/", "::/", "::/", "", "::/", true}},
        {".:", {".:/", ".:/", ".:/", "", ".:/", true}},
        {"\\:/x", {"\\:/", "x", "x", "", "\\:/x", true}},
        {"C:x/y", {"C:x/", "y", "y", "", "C:x/y", false}},
        {"C:x", {"", "C:x", "C:x", "", "C:x", false}},
        {":", {"", ":", ":", "", ":", false}},
        {":C/x", {":C/", "x", "x", "", ":C/x", false}},
        {"a/C:", {"a/", "C:", "C:", "", "a/C:", false}},
        {"a/C:/b", {"a/C:/", "b", "b", "", "a/C:/b", false}},
        {"/C:", {"/", "C:", "C:", "", "/C:", true}},
        // A backslash is an ordinary character.
        {"a\\b\\c.d", {"", "a\\b\\c.d", "a\\b\\c", ".d", "a\\b\\c.d", false}},
        {"\\a", {"", "\\a", "\\a", "", "\\a", false}},
        {"C:\\x", {"", "C:\\x", "C:\\x", "", "C:\\x", false}},
        // The first dot after the first position decides, in the file name alone.
        {"a.tar.gz", {"", "a.tar.gz", "a", ".tar.gz", "a.tar.gz", false}},
        {".a.b.c", {"", ".a.b.c", ".a", ".b.c", ".a.b.c", false}},
        {"...", {"", "...", ".", "..", "...", false}},
        {"x..", {"", "x..", "x", "..", "x..", false}},
        {"v1.2/file", {"v1.2/", "file", "file", "", "v1.2/file", false}},
        {".", {"", ".", ".", "", ".", false}},
        {"..", {"", "..", "..", "", "..", false}},
        {"./", {"", ".", ".", "", ".", false}},
        {"../", {"", "..", "..", "", "..", false}},
        {"/.", {"/", ".", ".", "", "/.", true}},
        {"/..", {"/", "..", "..", "", "/..", true}},
        {"a/./b/../c", {"a/./b/../", "c", "c", "", "a/./b/../c", false}},
        // Nothing but "/" is special.
        {std::string("a\0/b.\0c", 7),
         {std::string("a\0/", 3), std::string("b.\0c", 4), "b", std::string(".\0c", 3),
          std::string("a\0/b.\0c", 7), false}},
        {"\xff\n \t/\x80.\x01",
         {"\xff\n \t/", "\x80.\x01", "\x80", ".\x01", "\xff\n \t/\x80.\x01", false}},
    };
    return table;
}

TEST(FilePathTest, SplitsIntoComponents) {
    for (ComponentsRow const& row : componentsTable()) {
        EXPECT_EQ(componentsOf(FilePath(row.path)), row.components) << "path \"" << row.path << '"';
    }
}

TEST(FilePathTest, AnswersTheSameWhicheverQuestionComesFirst) {
    for (ComponentsRow const& row : componentsTable()) {
        Components const& expected = row.components;
        EXPECT_EQ(FilePath(row.path).FullPath(), expected.fullPath) << row.path;
        EXPECT_EQ(FilePath(row.path).FileName(), expected.fileName) << row.path;
        EXPECT_EQ(FilePath(row.path).FileBaseName(), expected.fileBaseName) << row.path;
        EXPECT_EQ(FilePath(row.path).Extension(), expected.extension) << row.path;
        EXPECT_EQ(FilePath(row.path).DirectoryPath(), expected.directoryPath) << row.path;
        EXPECT_EQ(FilePath(row.path).IsAbsolute(), expected.absolute) << row.path;
        EXPECT_EQ(FilePath(row.path).IsRelative(), !expected.absolute) << row.path;
        FilePath cached(row.path);
        cached.Cache();
        EXPECT_EQ(componentsOf(cached), expected) << row.path;
    }
}

TEST(FilePathTest, IsEmptyWhenDefaultConstructed) {
    FilePath const path;
    EXPECT_EQ(path.Path(), "");
    EXPECT_TRUE(path.IsEmpty());
    EXPECT_FALSE(path.EndingSeparator());
    EXPECT_EQ(componentsOf(path), Components());
    EXPECT_TRUE(path.IsRelative());
    EXPECT_EQ(path.Resolved(), ".");
}

TEST(FilePathTest, HasNoDriveLetterEver) {
    for (ComponentsRow const& row : componentsTable()) {
        EXPECT_EQ(FilePath(row.path).DriveLetter(), "") << row.path;
    }
}

TEST(FilePathTest, KeepsThePathAsSuppliedThroughAllQuestions) {
    for (ComponentsRow const& row : componentsTable()) {
        FilePath const path(row.path);
        EXPECT_EQ(path.Path(), row.path);
        componentsOf(path);
        path.DriveLetter();
        path.Resolved();
        path.Resolve("x");
        EXPECT_EQ(path.Path(), row.path);
        EXPECT_EQ(path.IsEmpty(), row.path.empty()) << row.path;
    }
}

TEST(FilePathTest, SeesTheEndingSeparatorOfTheTextAsSupplied) {
    struct Row {
        char const* path;
        bool ends;
    };
    for (Row const& row : std::vector<Row>{{"", false},
                                           {"/", true},
                                           {"a", false},
                                           {"a/b", false},
                                           {"a/b/", true},
                                           {"a//", true},
                                           {"C:", false},
                                           {"C:/", true},
                                           {"a\\", false},
                                           {"/.", false}}) {
        FilePath const path(row.path);
        EXPECT_EQ(path.EndingSeparator(), row.ends) << row.path;
        path.Cache();
        EXPECT_EQ(path.EndingSeparator(), row.ends) << row.path << ", cached";
    }
    FilePath const path("a/b/");
    EXPECT_TRUE(path.EndingSeparator());
    EXPECT_EQ(path.FileName(), "b");
    EXPECT_EQ(path.FullPath(), "a/b");
}

TEST(FilePathTest, ReflectsEveryNewPath) {
    FilePath path("/somewhere/else.entirely");
    for (ComponentsRow const& row : componentsTable()) {
        path.SetPath(row.path);
        EXPECT_EQ(path.Path(), row.path);
        EXPECT_EQ(componentsOf(path), row.components) << row.path;
        path.SetPath(row.path);
        path.SetPath("/somewhere/else.entirely");
        EXPECT_EQ(path.DirectoryPath(), "/somewhere/") << row.path;
    }
}

TEST(FilePathTest, KeepsTheTextOfAnAnswerUntilTheFirstQuestionAfterAChange) {
    for (bool const isAssigned : {false, true}) {
        FilePath path("/a directory of some length/a file.extension");
        std::string const& full = path.FullPath();
        std::string const& directory = path.DirectoryPath();
        std::string const& name = path.FileName();
        std::string const& base = path.FileBaseName();
        std::string const& extension = path.Extension();
        if (isAssigned) {
            path = FilePath("other//x.y");
        } else {
            path.SetPath("other//x.y");
        }
        EXPECT_EQ(full, "/a directory of some length/a file.extension");
        EXPECT_EQ(directory, "/a directory of some length/");
        EXPECT_EQ(name, "a file.extension");
        EXPECT_EQ(base, "a file");
        EXPECT_EQ(extension, ".extension");
        path.FullPath();
        EXPECT_EQ(full, "other/x.y");
        EXPECT_EQ(directory, "other/");
        EXPECT_EQ(name, "x.y");
        EXPECT_EQ(base, "x");
        EXPECT_EQ(extension, ".y");
    }
}

TEST(FilePathTest, CanBeSetToOneOfItsOwnComponents) {
    FilePath path("/a//b/a-name-that-is-too-long-to-be-kept-inside.the-string");
    path.SetPath(path.FileName());
    EXPECT_EQ(path.Path(), "a-name-that-is-too-long-to-be-kept-inside.the-string");
    EXPECT_EQ(path.Extension(), ".the-string");
    EXPECT_TRUE(path.IsRelative());
    path.SetPath(path.Path());
    EXPECT_EQ(path.FileBaseName(), "a-name-that-is-too-long-to-be-kept-inside");
}

TEST(FilePathTest, IsTheSameCopiedBeforeAndAfterTheFirstQuestion) {
    for (ComponentsRow const& row : componentsTable()) {
        FilePath source(row.path);
        FilePath const before(source);
        source.Cache();
        FilePath const after(source);
        source.SetPath("/something/quite.different");
        source.Cache();
        EXPECT_EQ(before.Path(), row.path);
        EXPECT_EQ(after.Path(), row.path);
        EXPECT_EQ(componentsOf(before), row.components) << row.path;
        EXPECT_EQ(componentsOf(after), row.components) << row.path;
    }
}

TEST(FilePathTest, AssignmentForgetsTheOldComponents) {
    for (ComponentsRow const& row : componentsTable()) {
        for (bool const sourceCached : {false, true}) {
            FilePath source(row.path);
            if (sourceCached) {
                source.Cache();
            }
            FilePath target("/old/directory/old.name");
            target.Cache();
            EXPECT_EQ(&(target = source), &target);
            EXPECT_EQ(target.Path(), row.path);
            EXPECT_EQ(componentsOf(target), row.components) << row.path;
            EXPECT_EQ(target.DriveLetter(), "");
            EXPECT_EQ(source.Path(), row.path);
            EXPECT_EQ(componentsOf(source), row.components) << row.path;
            target.SetPath("x");
            EXPECT_EQ(source.Path(), row.path) << "a copy shares nothing";
        }
    }
}

TEST(FilePathTest, CanBeAssignedToItself) {
    FilePath path("/a/b.c");
    FilePath const& same = path;
    path.Cache();
    path = same;
    EXPECT_EQ(path.Path(), "/a/b.c");
    EXPECT_EQ(componentsOf(path), componentsOf(FilePath("/a/b.c")));
}

/// Leaves a mark in a component of the path, which goes when the path is split again.
void mark(FilePath const& path) {
    const_cast<std::string&>(path.FileName()) = "marked";
}

TEST(FilePathTest, SplitsOnceUntilThePathChanges) {
    FilePath path("/directory/file.extension");
    std::string const* const fileName = &path.FileName();
    mark(path);
    path.Cache();
    path.IsAbsolute();
    path.FullPath();
    EXPECT_EQ(path.FileName(), "marked");
    EXPECT_EQ(&path.FileName(), fileName);
    EXPECT_EQ(path.Resolved(), "/directory/file.extension") << "from the text alone";
    path.SetPath(path.Path());
    EXPECT_EQ(path.FileName(), "file.extension");
}

TEST(FilePathTest, IsCopiedWithItsComponentsButAssignedWithoutThem) {
    FilePath source("/directory/file.extension");
    mark(source);
    FilePath const copy(source);
    EXPECT_EQ(copy.FileName(), "marked");
    EXPECT_EQ(FilePath("/base").Resolve(source).FileName(), "marked") << "a copy as well";
    FilePath assigned;
    assigned = source;
    EXPECT_EQ(assigned.FileName(), "file.extension");
    EXPECT_EQ(source.FileName(), "marked");
    FilePath const& same = source;
    source = same;
    EXPECT_EQ(source.FileName(), "file.extension") << "assigned to itself, too";
}

TEST(FilePathTest, ReferencesHoldTheirTextUntilTheNextQuestionAfterAChange) {
    for (char const* text : {"/a/b.c", "b.c", "/", "C:", "a//b.c/", ""}) {
        FilePath path{std::string(text)};
        std::string const* const references[] = {&path.FullPath(), &path.FileName(),
                                                 &path.FileBaseName(), &path.Extension(),
                                                 &path.DirectoryPath()};
        auto const texts = [&references] {
            std::vector<std::string> result;
            for (std::string const* reference : references) {
                result.push_back(*reference);
            }
            return result;
        };
        std::vector<std::string> const old = texts();
        path.SetPath("/quite/another/path.txt");
        EXPECT_EQ(texts(), old) << text;
        path.IsAbsolute();
        EXPECT_EQ(texts(), (std::vector<std::string>{"/quite/another/path.txt", "path.txt", "path",
                                                     ".txt", "/quite/another/"}))
            << text;
    }
}

TEST(FilePathTest, AgreesWithTheModelOnEveryShortPath) {
    std::string const letters = "/.:C";
    constexpr std::size_t LONGEST = 8;
    std::string text;
    std::uint64_t paths = 0;
    bool agrees = true;
    // Counts in base 4 with a length of its own for every number.
    for (std::size_t length = 0; length <= LONGEST && agrees; ++length) {
        std::uint64_t const combinations = std::uint64_t{1} << (2 * length);
        for (std::uint64_t number = 0; number < combinations && agrees; ++number) {
            text.clear();
            for (std::size_t position = 0; position < length; ++position) {
                text += letters[(number >> (2 * position)) & 3];
            }
            agrees = agreesWithTheModel(text, text);
            ++paths;
        }
    }
    EXPECT_EQ(paths, 87381u);
}

TEST(FilePathTest, AgreesWithTheModelOnAMillionRandomPaths) {
    // Weighted by repetition: separators and dots make the cases.
    std::string const letters = std::string("////....:CCaab\\ \n\xff") + '\0';
    RandomSource random(runSeed());
    auto const randomPath = [&](std::uint32_t longest) {
        std::string text;
        std::uint32_t const length = random.below(longest + 1);
        while (text.size() < length) {
            switch (random.below(12)) {
                case 0:
                    text += "../";
                    break;
                case 1:
                    text += "/..";
                    break;
                case 2:
                    text += "./";
                    break;
                default:
                    text += letters[random.below(static_cast<std::uint32_t>(letters.size()))];
            }
        }
        return text;
    };
    bool agrees = true;
    int const rounds = ovra::test::scaled(1000000);
    for (int paths = 0; paths < rounds && agrees; ++paths) {
        agrees = agreesWithTheModel(randomPath(24), randomPath(5));
    }
    for (int paths = 0; paths < rounds / 1000 && agrees; ++paths) {
        agrees = agreesWithTheModel(randomPath(5000), randomPath(50));
    }
    EXPECT_TRUE(agrees) << seedNote();
}

}  // namespace
}  // namespace ovra::fs
