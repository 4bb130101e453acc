#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <ovra/Version.h>

#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class ArgumentsTest : public BoundedTest {
protected:
    Outcome call(std::vector<std::string> arguments, char const* outputFile = "") const {
        arguments.insert(arguments.begin(), OVRA_MANIFEST);
        Command command;
        command.arguments = arguments;
        command.directory = scratch.path();
        command.outputFile = outputFile;
        return run(command);
    }

    ScratchDirectory scratch;
};

TEST_F(ArgumentsTest, WrongOnesAreNamedInOneLine) {
    struct {
        std::vector<std::string> arguments;
        char const* message;
    } const rows[] = {
        {{}, "create, check or watch? See --help"},
        {{"destroy"}, "unknown command destroy: create, check or watch?"},
        {{"create"}, "create needs a directory"},
        {{"create", ""}, "an empty name is no directory"},
        {{"create", "--jobs", "2"}, "create needs a directory"},
        {{"create", "d", "--jobs"}, "--jobs needs a value"},
        {{"create", "d", "--jobs="}, "--jobs needs a value"},
        {{"create", "d", "--jobs", "0"}, "--jobs needs a number from 1 up, not 0"},
        {{"create", "d", "--jobs=-1"}, "--jobs needs a number from 1 up, not -1"},
        {{"create", "d", "--jobs", "two"}, "--jobs needs a number from 1 up, not two"},
        {{"create", "d", "--jobs", "2x"}, "--jobs needs a number from 1 up, not 2x"},
        {{"create", "d", "--jobs", "99999999999999999999"},
         "--jobs needs a number from 1 up, not 99999999999999999999"},
        {{"create", "d", "-o"}, "-o needs a value"},
        {{"create", "d", "-o", ""}, "-o needs a value"},
        {{"create", "d", "--log", ""}, "--log needs a value"},
        {{"create", "d", "--first"}, "--first needs a value"},
        {{"create", "d", "-x"}, "unknown option -x: see --help"},
        {{"create", "d", "--fast please"}, "unknown option '--fast please': see --help"},
        {{"create", "d", "--verbose=yes", "-o", "m"}, "--verbose takes no value"},
        {{"create", "d", "-o", "m", "--verbose=yes"}, "--verbose takes no value"},
        {{"create", "d", "--verbose"},
         "create --verbose needs -o: log lines go to standard output"},
        {{"create", "d", "-j0"}, "-j needs a number from 1 up, not 0"},
        {{"create", "d", "--quiet"},
         "--quiet, --status, --strict, --ignore-missing and --new belong to check"},
        {{"check", "m", "--quiet", "--status"}, "--quiet or --status, not both"},
        {{"check", "m", "-qq"}, "-q takes no value"},
        {{"check"}, "check needs one manifest"},
        {{"check", "a", "b"}, "check needs one manifest"},
        {{"check", "a", "-o", "b"}, "-o and --first belong to create"},
        {{"check", "a", "--first", "b"}, "-o and --first belong to create"},
        {{"watch"}, "watch needs one manifest, a file"},
        {{"watch", "-", "--every", "1"}, "watch needs one manifest, a file"},
        {{"watch", "a", "b", "--every", "1"}, "watch needs one manifest, a file"},
        {{"watch", "m"}, "watch needs --every SECONDS"},
        {{"watch", "m", "--every", "0"},
         "--every needs a number of seconds such as 3600 or 0.5, not 0"},
        {{"watch", "m", "--every", "1.2.3"},
         "--every needs a number of seconds such as 3600 or 0.5, not 1.2.3"},
        {{"watch", "m", "--every", "."},
         "--every needs a number of seconds such as 3600 or 0.5, not ."},
        {{"watch", "m", "--every", "-1"},
         "--every needs a number of seconds such as 3600 or 0.5, not -1"},
        {{"watch", "m", "--every=1", "--verbose"}, "unknown option of watch --verbose: see --help"},
        {{"watch", "m", "--every=1", "--new", "d", "--listed-only"},
         "--new or --listed-only, not both"},
        {{"watch", "m", "--every=1", "--keep", "2"}, "--max-bytes and --keep are about --log"},
        {{"watch", "m", "--every=1", "--keep", "1000"},
         "--keep needs a number from 0 to 999, not 1000"},
        {{"watch", "m", "--every=1", "-j13"}, "-j needs a number from 1 to 12, not 13"},
        {{"watch", "m", "--every=1", "--rounds", "0"}, "--rounds needs a number from 1 up, not 0"},
        {{"watch", "m", "--every=1", "--rate", "fast"},
         "--rate needs a number from 0 up, not fast"},
        {{"--jobs", "2", "watch", "m"},
         "watch comes first: ovra-manifest watch MANIFEST --every SECONDS"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.arguments));
        Outcome const outcome = call(row.arguments);
        EXPECT_EQ(2, outcome.exitStatus);
        EXPECT_EQ(std::string("ovra-manifest: ") + row.message + '\n', outcome.err);
        EXPECT_THAT(outcome.out, IsEmpty());
        EXPECT_EQ(0u, scratch.entries());
    }
}

TEST_F(ArgumentsTest, OrderAndSpellingAreFree) {
    scratch.write("d/a", "a");
    std::string const expected = call({"create", "d"}).out;
    ASSERT_THAT(expected, ::testing::EndsWith("  d/a\n"));
    for (std::vector<std::string> const& arguments :
         {std::vector<std::string>{"--jobs", "2", "create", "d"},
          {"create", "--jobs=2", "--", "d"},
          {"create", "-j2", "d"},
          {"create", "-j", "2", "d"},
          {"--first=d/a", "create", "d", "--jobs", "200"}}) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        Outcome const outcome = call(arguments);
        EXPECT_EQ(expected, outcome.out);
        EXPECT_THAT(outcome.err, IsEmpty());
        EXPECT_EQ(0, outcome.exitStatus);
    }
}

TEST_F(ArgumentsTest, ValueMayFollowItsLetterAtOnce) {
    scratch.write("d/a", "a");
    EXPECT_EQ(0, call({"create", "d", "-omanifest"}).exitStatus);
    EXPECT_THAT(scratch.read("manifest"), ::testing::EndsWith("  d/a\n"));
}

TEST_F(ArgumentsTest, HelpAndVersion) {
    Outcome const help = call({"create", "--help"});
    EXPECT_EQ(help.out, call({"-h"}).out);
    EXPECT_EQ(help.out, call({"watch", "--help"}).out);
    EXPECT_EQ(0, help.exitStatus);
    EXPECT_THAT(help.out, StartsWith("Usage: ovra-manifest create DIR..."));
    for (auto const* option :
         {"-o FILE", "--jobs N", "--first PATH", "--log PATH", "--verbose", "-j, --jobs N",
          "-q, --quiet", "--status", "--strict", "--ignore-missing", "--new DIR"}) {
        EXPECT_THAT(help.out, HasSubstr(option));
    }
    EXPECT_THAT(help.err, IsEmpty());

    Outcome const version = call({"--version"});
    EXPECT_EQ(0, version.exitStatus);
    EXPECT_EQ("ovra-manifest " OVRA_VERSION "\n", version.out);

    for (auto const* option : {"--help", "--version"}) {
        Outcome const unwritten = call({option}, "/dev/full");
        EXPECT_EQ(1, unwritten.exitStatus);
        EXPECT_EQ("ovra-manifest: standard output: No space left on device\n", unwritten.err);
    }
}

}  // namespace
