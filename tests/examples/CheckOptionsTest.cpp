#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <tests/examples/Digests.h>
#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class CheckOptionsTest : public BoundedTest {
protected:
    CheckOptionsTest() {
        scratch.write("d/a", "alpha");
        scratch.write("d/b", "beta");
    }

    Outcome call(std::vector<std::string> const& arguments) const {
        Command command;
        command.arguments = arguments;
        command.directory = scratch.path();
        return run(command);
    }
    Outcome check(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {OVRA_MANIFEST, "check", "manifest"});
        return call(arguments);
    }

    ScratchDirectory scratch;
};

TEST_F(CheckOptionsTest, AgreeWithSha256sum) {
    std::string const a = ALPHA + "  d/a\n";
    std::string const manifests[] = {
        a + BETA + "  d/b\n",      a + WRONG + "  d/b\n", WRONG + "  d/a\n",
        a + ALPHA + "  missing\n", ALPHA + "  missing\n", WRONG + "  d/a\n" + ALPHA + "  missing\n",
        a + "no entry\n",          "no entry\n",          a + ALPHA + "  d\n",
    };
    std::vector<std::string> const rows[] = {
        {"--quiet"},
        {"--status"},
        {"--strict"},
        {"--ignore-missing"},
        {"--quiet", "--strict", "--ignore-missing"},
        {"--status", "--strict", "--ignore-missing"},
    };
    for (auto const& manifest : manifests) {
        scratch.write("manifest", manifest);
        for (auto options : rows) {
            SCOPED_TRACE(manifest + ::testing::PrintToString(options));
            Outcome const ours = check(options);
            options.insert(options.begin(), {"sha256sum", "-c", "manifest"});
            Outcome const theirs = call(options);
            EXPECT_EQ(theirs.exitStatus, ours.exitStatus);
            EXPECT_EQ(theirs.out, ours.out);
            std::string expected = theirs.err;
            for (std::size_t at = 0; (at = expected.find("sha256sum:", at)) != std::string::npos;) {
                expected.replace(at, 9, "ovra-manifest");
            }
            EXPECT_EQ(expected, ours.err);
        }
    }
}

TEST_F(CheckOptionsTest, QuietHasAShortForm) {
    scratch.write("manifest", ALPHA + "  d/a\n");
    Outcome const outcome = check({"-q"});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.out + outcome.err, IsEmpty());
}

TEST_F(CheckOptionsTest, NewFilesAreNamed) {
    scratch.write("manifest", ALPHA + "  d/a\n");
    Outcome const outcome = check({"--new", "d"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("d/a: OK\nd/b: NEW\n", outcome.out);
    EXPECT_EQ("ovra-manifest: WARNING: 1 file is not listed\n", outcome.err);

    EXPECT_EQ("d/b: NEW\n", check({"--new", "d", "--quiet"}).out);
    Outcome const silent = check({"--new", "d", "--status"});
    EXPECT_EQ(1, silent.exitStatus);
    EXPECT_THAT(silent.out + silent.err, IsEmpty());
}

TEST_F(CheckOptionsTest, WhereAllIsListedNothingIsNew) {
    // In an order of its own.
    scratch.write("d/manifest", BETA + "  d/b\n" + ALPHA + "  d/a\n");
    Outcome const outcome = call({OVRA_MANIFEST, "check", "d/manifest", "--new", "d"});
    EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
    EXPECT_EQ("d/b: OK\nd/a: OK\n", outcome.out) << "the manifest itself is not new";
}

TEST_F(CheckOptionsTest, TreeThatCannotBeReadIsAFailure) {
    scratch.write("manifest", ALPHA + "  d/a\n");
    Outcome const outcome = check({"--new", "missing"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: missing: No such file or directory\n", outcome.err);
}

TEST_F(CheckOptionsTest, NamedPipeDoesNotBlock) {
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    scratch.write("manifest", ALPHA + "  pipe\n" + ALPHA + "  d/a\n");
    Outcome const outcome = check({});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("pipe: FAILED open or read\nd/a: OK\n", outcome.out);
    EXPECT_THAT(outcome.err, HasSubstr("ovra-manifest: pipe: is a named pipe\n"));
}

}  // namespace
