#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <cctype>
#include <map>

#include <tests/examples/Digests.h>
#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

class CheckTest : public BoundedTest {
protected:
    CheckTest() {
        scratch.write("a", "alpha");
        scratch.write("b c", "beta");
    }

    Command command(std::vector<std::string> const& arguments) const {
        Command command;
        command.arguments = {OVRA_MANIFEST, "check"};
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.directory = scratch.path();
        return command;
    }

    // Checks the manifest with both programs, which must agree in everything but their names.
    void expectSame(std::string const& manifest, std::vector<std::string> const& options = {},
                    Command ours = {}) const {
        ours.directory = scratch.path();
        Command theirs = ours;
        theirs.arguments = {"sha256sum", "-c", manifest};
        ours.arguments = {OVRA_MANIFEST, "check", manifest};
        ours.arguments.insert(ours.arguments.end(), options.begin(), options.end());
        Outcome const expected = run(theirs);
        Outcome const outcome = run(ours);
        EXPECT_EQ(expected.out, outcome.out);
        EXPECT_EQ(renamed(expected.err), outcome.err);
        EXPECT_EQ(expected.exitStatus, outcome.exitStatus);
    }
    void expectSameFor(std::string const& content) const {
        scratch.write("manifest", content);
        expectSame("manifest");
    }

    static std::string renamed(std::string text) {
        std::string const name = "sha256sum: ";
        for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
            text.replace(at, name.size(), "ovra-manifest: ");
        }
        return text;
    }

    ScratchDirectory scratch;
    // The named pipe "pipe" under a name below /dev, as of what a shell hands over: only such are
    // opened.
    std::string const pipe = "/dev/.." + scratch.path("pipe");
};

TEST_F(CheckTest, AgreesWithSha256sum) {
    std::string const a = ALPHA + "  a\n";
    std::string const b = BETA + "  b c\n";
    struct {
        char const* what;
        std::string manifest;
    } const rows[] = {
        {"all well", a + b},
        {"another order", b + a},
        {"one differs", a + WRONG + "  b c\n"},
        {"two differ", WRONG + "  a\n" + WRONG + "  b c\n"},
        {"one is missing", a + ALPHA + "  missing\n"},
        {"two are missing", ALPHA + "  missing\n" + ALPHA + "  missing too\n" + a},
        {"a directory", ALPHA + "  directory\n" + a},
        {"all kinds", a + WRONG + "  b c\n" + ALPHA + "  missing\nnonsense\n"},
        {"one line is malformed", a + "nonsense\n"},
        {"two lines are malformed", "nonsense\n" + a + "more nonsense\n"},
        {"all lines are malformed", "nonsense\n"},
        {"nothing at all", ""},
        {"only comments and empty lines", "# comment\n\n\r\n"},
        {"comments and empty lines", "# comment\n\n" + a + "\n#" + b},
        {"binary marker", ALPHA + " *a\n" + BETA + " *b c\n"},
        {"upper-case digits", upper(ALPHA) + "  a\n"},
        {"lines that end as on other systems", ALPHA + "  a\r\n" + BETA + "  b c\r\n"},
        {"no newline at the end", a + BETA + "  b c"},
        {"blanks in front", " \t" + a},
        {"digest too short", ALPHA.substr(1) + "  a\n"},
        {"digest too long", "0" + a},
        {"digest with another letter", "g" + ALPHA.substr(1) + "  a\n"},
        {"tab after the digest", ALPHA + "\t a\n"},
        {"no name", ALPHA + "  \n" + a},
        {"no marker and a name of one letter", ALPHA + " a\n"},
        {"no marker first, then one", ALPHA + " a\n" + BETA + "  b c\n"},
        {"a marker first, then none", BETA + "  b c\n" + ALPHA + " a\n"},
        {"BSD form", "SHA256 (a) = " + ALPHA + "\nSHA256 (b c) = " + BETA + "\n"},
        {"BSD form without blanks", "SHA256(a)=" + ALPHA + "\n"},
        {"BSD form of an empty name", "SHA256 () = " + ALPHA + "\n"},
        {"BSD form of another digest", "MD5 (a) = " + ALPHA + "\n" + a},
        {"BSD form cut short", "SHA256 (a) = \nSHA256 (a)\nSHA256 (a\nSHA256\n" + a},
        {"BSD form with a parenthesis", "SHA256 (x) = y) = " + ALPHA + "\n"},
        {"escaped newline", "\\" + ALPHA + "  new\\nline\n"},
        {"escaped newline, differs", "\\" + WRONG + "  new\\nline\n"},
        {"escaped newline, missing", "\\" + WRONG + "  no\\nsuch\n"},
        {"escaped newline, BSD form", "\\SHA256 (new\\nline) = " + ALPHA + "\n"},
        {"escaped backslash", "\\" + ALPHA + "  back\\\\slash\n"},
        {"escaped carriage return", "\\" + ALPHA + "  carriage\\rreturn\n"},
        {"unknown escape", "\\" + ALPHA + "  \\a\n" + a},
        {"unfinished escape", "\\" + ALPHA + "  a\\\n" + a},
        {"backslash without escape", ALPHA + "  back\\slash\n"},
        {"zero byte in the name", ALPHA + "  a" + std::string(1, '\0') + "b\n"},
        {"zero byte in the digest", std::string(1, '\0') + ALPHA.substr(1) + "  a\n"},
        {"missing names that need quotes",
         WRONG + "  it's\n" + WRONG + "  a:b\n" + WRONG + "  \"x'\n" + WRONG + "  \x1b[31m\n" +
             WRONG + "  \xff\n" + WRONG + "  \xc3\xa9\n" + WRONG + "  {}~#\n" + WRONG + "  #\n" +
             WRONG + "  tab\there\n" + WRONG +
             "  a'\x01"
             "b\n" +
             WRONG + "  {\n" + WRONG + "  'x #\n"},
    };
    scratch.makeDirectory("directory");
    for (auto const* name : {"new\nline", "back\\slash", "carriage\rreturn", "x) = y"}) {
        scratch.write(name, "alpha");
    }
    for (auto const& row : rows) {
        SCOPED_TRACE(row.what);
        expectSameFor(row.manifest);
    }
}

TEST_F(CheckTest, AgreesWithSha256sumOnDamagedManifests) {
    SCOPED_TRACE(seedNote());
    RandomSource random(runSeed());
    std::string const bytes("\0\t\n\r #()*0=AS\\ a", 16);
    std::vector<std::string> const lines = {
        ALPHA + "  a",           BETA + " *b c", "SHA256 (b c) = " + BETA,
        "\\" + ALPHA + "  \\na", ALPHA + " a",   WRONG + "  a"};
    for (int round = scaled(100); round > 0; --round) {
        std::string manifest;
        for (int count = random.between(1, 4); count > 0; --count) {
            std::string line = lines[random.below(static_cast<std::uint32_t>(lines.size()))];
            while (random.oneIn(2)) {
                auto const at = random.below(static_cast<std::uint32_t>(line.size()));
                // Mostly where the structure is, at either end of the digest.
                auto const position = random.oneIn(3) ? at : random.oneIn(2) ? at % 3 : 64 + at % 3;
                if (position <= line.size()) {
                    line.replace(position, random.below(2),
                                 std::string(random.below(2), bytes[random.below(16)]));
                }
            }
            manifest += line + '\n';
        }
        SCOPED_TRACE(::testing::PrintToString(manifest));
        restartDeadline();
        expectSameFor(manifest);
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(CheckTest, AgreesWithSha256sumWhateverTheNumberOfWorkers) {
    std::string manifest;
    for (int i = 0; i < 600; ++i) {
        std::string const name = "file " + std::to_string(i);
        scratch.write(name, i % 7 == 0 ? "changed" : "alpha");
        manifest += ALPHA + "  " + (i % 11 == 0 ? "missing " : "") + name + '\n';
    }
    scratch.write("manifest", manifest);
    expectSame("manifest");
    expectSame("manifest", {"--jobs", "4"});
    expectSame("manifest", {"--jobs", "12"});
}

TEST_F(CheckTest, AgreesWithSha256sumInAnotherLocale) {
    scratch.write("manifest", WRONG + "  \xc3\xa9 \xe2\x82\xac\n" + WRONG + "  \xc3\xa9\xff\n" +
                                  WRONG + "  \xe2\x82\n" + WRONG + "  \xe2\x80\x8b\n" + WRONG +
                                  "  \xc3\xa9\n");
    Command command;
    command.locale = "C.UTF-8";
    expectSame("manifest", {}, command);
}

TEST_F(CheckTest, ManifestFromStandardInput) {
    Command piped;
    piped.input = ALPHA + "  a\n" + BETA + "  b c\n" + ALPHA + "  -\n";
    expectSame("-", {}, piped);
    piped.input = "nonsense\n";
    expectSame("-", {}, piped);
}

TEST_F(CheckTest, EntryThatNamesStandardInput) {
    scratch.write("manifest", ALPHA + "  -\n" + ALPHA + "  a\n");
    Command piped;
    piped.input = "alpha";
    expectSame("manifest", {}, piped);
}

TEST_F(CheckTest, ManifestThatCannotBeRead) {
    scratch.makeDirectory("directory");
    scratch.write("closed", "");
    scratch.permit("closed", 0);
    Command asUser;
    asUser.unprivileged = true;
    for (auto const* manifest : {"missing", "missing too", "directory", "closed"}) {
        SCOPED_TRACE(manifest);
        expectSame(manifest, {}, asUser);
    }
}

TEST_F(CheckTest, FilesThatMayNotBeRead) {
    scratch.write("closed", "alpha");
    scratch.permit("closed", 0);
    scratch.write("directory/a", "alpha");
    scratch.permit("directory", 0);
    scratch.write("manifest", ALPHA + "  closed\n" + ALPHA + "  directory/a\n" + ALPHA + "  a\n");
    Command asUser;
    asUser.unprivileged = true;
    expectSame("manifest", {}, asUser);
}

TEST_F(CheckTest, LinksAreFollowed) {
    scratch.link("a", "link");
    scratch.link("nowhere", "dangling");
    scratch.link("loop", "loop");
    expectSameFor(ALPHA + "  link\n" + ALPHA + "  dangling\n" + ALPHA + "  loop\n");
}

TEST_F(CheckTest, AcceptsWhatCreateMakes) {
    scratch.write("d/new\nline", "1");
    scratch.write("d/e/back\\slash", "2");
    Command create;
    create.arguments = {OVRA_MANIFEST, "create", "d", "-o", "manifest"};
    create.directory = scratch.path();
    ASSERT_EQ(0, run(create).exitStatus);
    Outcome const outcome = run(command({"manifest"}));
    EXPECT_EQ("d/e/back\\slash: OK\n\\d/new\\nline: OK\n", outcome.out);
    EXPECT_EQ(0, outcome.exitStatus);
}

TEST_F(CheckTest, ResultsAppearInTheOrderOfTheManifestAsTheyCome) {
    // The second file, a pipe, can only be read once the test writes to it.
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    scratch.write("manifest",
                  WRONG + "  missing\n" + ALPHA + "  " + pipe + "\n" + WRONG + "  gone\n");
    Process program(command({"manifest", "--jobs", "2"}));
    ASSERT_TRUE(program.waitForError("missing: No such file or directory\n"));
    scratch.write("pipe", "alpha");
    Outcome const outcome = program.finish();
    EXPECT_EQ("missing: FAILED open or read\n" + pipe + ": OK\ngone: FAILED open or read\n",
              outcome.out);
    EXPECT_EQ(1, outcome.exitStatus);
}

TEST_F(CheckTest, InterruptFinishesWhatIsBeingReadAndSkipsTheRest) {
    // One worker: it is reading the pipe when the interrupt comes, and has not begun what follows.
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    scratch.write("manifest", ALPHA + "  a\n" + ALPHA + "  " + pipe + "\n" + BETA + "  b c\n" +
                                  ALPHA + "  a\n");
    Process program(command({"manifest", "--jobs", "1"}));
    {
        std::ofstream writer(scratch.path("pipe"));  // Returns when the program has opened it too.
        program.send(SIGINT);
        ASSERT_TRUE(program.waitForError("interrupted: finishing the files that are being read\n"));
        writer << "alpha";
    }
    Outcome const outcome = program.finish();
    EXPECT_EQ("a: OK\n" + pipe + ": OK\n", outcome.out);
    EXPECT_THAT(outcome.err, EndsWith("ovra-manifest: interrupted after 2 of 4 files\n"));
    EXPECT_EQ(130, outcome.exitStatus);
}

TEST_F(CheckTest, SecondInterruptEndsItAtOnce) {
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    scratch.write("manifest", ALPHA + "  " + pipe + "\n");
    Process program(command({"manifest"}));
    std::ofstream const writer(scratch.path("pipe"));
    program.send(SIGINT);
    ASSERT_TRUE(program.waitForError("interrupted: finishing"));
    program.send(SIGINT);
    EXPECT_EQ(SIGINT, program.finish().signal);
}

TEST_F(CheckTest, VerboseKeepsLogLinesAndResultsApart) {
    std::string manifest;
    for (int i = 0; i < 50; ++i) {
        manifest += ALPHA + "  a\n";
    }
    scratch.write("manifest", manifest + ALPHA + "  100%d\n");
    Outcome const outcome = run(command({"manifest", "--verbose", "--jobs", "4"}));
    EXPECT_EQ(1, outcome.exitStatus);

    std::map<std::string, int> kinds;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
        bool const isLog =
            line.front() == '[' && (line.back() == '.' || line.back() == 'd' || line.back() == 'y');
        ++kinds[isLog ? "log" : line];
    }
    EXPECT_EQ(50, kinds["a: OK"]);
    EXPECT_EQ(1, kinds["100%d: FAILED open or read"]);
    EXPECT_GE(kinds["log"], 102) << "each task begins and ends";
    EXPECT_EQ(3u, kinds.size()) << outcome.out;
}

TEST_F(CheckTest, ProgressGivesWayToResultsOnATerminal) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine gives out no terminals: /dev/pts is missing";
    }
    // One after the other, so that the second file cannot be done before the first draws.
    Command watched = command({"--jobs", "1", "manifest"});
    watched.onTerminal = true;
    scratch.write("manifest", ALPHA + "  a\n" + WRONG + "  missing\n");
    Outcome const outcome = run(watched);
    EXPECT_EQ("a: OK\nmissing: FAILED open or read\n", outcome.out);
    EXPECT_THAT(outcome.err, HasSubstr("0 of 2 files, 0.0 of 0.0 MB, "));
    // Each line starts on a cleared line or after another one.
    EXPECT_THAT(outcome.err, HasSubstr("\r\x1b[Kovra-manifest: missing: No such file"));
    EXPECT_THAT(outcome.err,
                EndsWith("\novra-manifest: WARNING: 1 listed file could not be read\r\n"));
}

TEST_F(CheckTest, ProgressIsShownOfReadingAndWalkingToo) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine gives out no terminals: /dev/pts is missing";
    }
    scratch.write("d/new", "new");
    Command watched = command({"--new", "d", "manifest"});
    watched.onTerminal = true;
    scratch.write("manifest", ALPHA + "  a\n");
    Outcome const outcome = run(watched);
    EXPECT_EQ("a: OK\nd/new: NEW\n", outcome.out);
    EXPECT_THAT(outcome.err, StartsWith("\r\x1b[Kreading the manifest, 1 found\r\x1b[K"));
    EXPECT_THAT(outcome.err, HasSubstr("\r\x1b[Kwalking, 1 found\r\x1b[K"));
}

TEST_F(CheckTest, StandardOutputThatCannotBeWrittenIsAFailure) {
    scratch.write("manifest", ALPHA + "  a\n");
    Command full = command({"manifest"});
    full.outputFile = "/dev/full";
    Outcome const outcome = run(full);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: standard output: No space left on device\n", outcome.err);
}

}  // namespace
