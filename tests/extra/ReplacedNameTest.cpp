// The names of the files that stand beside the one that is replaced.

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ovra/extra/ReplaceFile.h>
#include <tests/fs/TemporaryDirectory.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;

constexpr std::size_t LONGEST_WHOLE = NAME_MAX - 2 - 6;  // With two dots and six letters.

class ReplacedNameTest : public TemporaryDirectoryTest {
protected:
    // Those that are tried, where names of more than `most` bytes are refused. Without the dots
    // and the letters.
    std::vector<std::string> namesFor(std::string const& name, std::size_t most = NAME_MAX) const {
        Intercepted calls;
        std::vector<std::string> names;
        calls.before = [&](SystemCall const& call) {
            if (call.name != "openat" || (call.flags & O_CREAT) == 0) {
                return 0;
            }
            EXPECT_NE(call.flags & O_EXCL, 0);
            EXPECT_EQ(call.path.front(), '.');
            std::size_t const end = call.path.size() - 7;
            EXPECT_EQ(call.path[end], '.');
            names.push_back(call.path.substr(1, end - 1));
            return call.path.size() > most ? ENAMETOOLONG : 0;
        };
        EXPECT_EQ(replaceFile(at(name), "contents"), Outcome::DONE);
        return names;
    }
};

TEST_F(ReplacedNameTest, IsCutForTheFirstByteTooMany) {
    for (std::size_t const length : {LONGEST_WHOLE - 1, LONGEST_WHOLE, LONGEST_WHOLE + 1,
                                     LONGEST_WHOLE + 2, std::size_t{NAME_MAX}}) {
        std::string const name = std::string(length - 1, 'n') + "x";
        for (std::string const& found : namesFor(name)) {
            EXPECT_EQ(found, name.substr(0, LONGEST_WHOLE)) << length;
        }
    }
}

TEST_F(ReplacedNameTest, IsCutBetweenCharacters) {
    // Of two bytes each; the cut comes in the middle of one, and then between two.
    for (std::size_t const before : {0u, 1u}) {
        std::string name(before, 'a');
        while (name.size() + 2 <= NAME_MAX) {
            name += "\u00e4";
        }
        std::size_t const whole = (LONGEST_WHOLE - before) / 2 * 2 + before;
        EXPECT_EQ(namesFor(name).back(), name.substr(0, whole));
    }
}

// A clock that stands still, as one that counts slow ticks does for a while.
TEST_F(ReplacedNameTest, IsAnotherOneWhereTheFirstIsTaken) {
    writeFile(at("f"));
    Intercepted calls;
    std::vector<std::string> names;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "openat" && (call.flags & O_CREAT) != 0) {
            names.push_back(call.path);
            return names.size() <= 3 ? EEXIST : 0;
        }
        return call.name == "clock_gettime" ? EINVAL : 0;
    };
    EXPECT_EQ(replaceFile(at("f"), "contents"), Outcome::DONE);
    EXPECT_EQ(names.size(), 4u);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
}

// Files that earlier losses of power have left, under all the names that one call tries.
TEST_F(ReplacedNameTest, IsAnotherOneInALaterCall) {
    writeFile(at("f"));
    Intercepted calls;
    std::set<std::string> taken;
    bool isFirst = true;
    calls.before = [&](SystemCall const& call) {
        if (call.name != "openat" || (call.flags & O_CREAT) == 0) {
            return 0;
        }
        return (isFirst ? taken.insert(call.path).second : taken.count(call.path) > 0) ? EEXIST : 0;
    };
    EXPECT_EQ(replaceFile(at("f"), "contents"), Outcome::EXISTS);
    isFirst = false;
    EXPECT_EQ(replaceFile(at("f"), "contents"), Outcome::DONE);
    EXPECT_EQ(taken.size(), 1000u);
}

TEST_F(ReplacedNameTest, IsHalvedWhereTheFileSystemAllowsLess) {
    std::string const name(100, 'n');
    writeFile(at(name));
    std::vector<std::string> expected;
    for (std::size_t const length : {100u, 50u, 25u, 12u}) {
        expected.push_back(std::string(length, 'n'));
    }
    EXPECT_EQ(namesFor(name, 20), expected);
    EXPECT_EQ(readFile(at(name)), "contents");
}

}  // namespace

}  // namespace ovra::extra
