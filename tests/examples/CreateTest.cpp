#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <tests/examples/Process.h>
#include <tests/examples/StuckLog.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class CreateTest : public BoundedTest {
protected:
    Command command(std::vector<std::string> const& arguments) const {
        Command command;
        command.arguments = {OVRA_MANIFEST, "create"};
        command.arguments.insert(command.arguments.end(), arguments.begin(), arguments.end());
        command.directory = scratch.path();
        return command;
    }
    Outcome create(std::vector<std::string> const& arguments) const {
        return run(command(arguments));
    }

    // What the system's own tools say of the same directories.
    std::string expected(std::vector<std::string> const& directories) const {
        Command command;
        command.arguments = {"sh", "-c",
                             "find -H \"$@\" -type f -print0 | LC_ALL=C sort -z | "
                             "xargs -0r sha256sum --",
                             "sh"};
        command.arguments.insert(command.arguments.end(), directories.begin(), directories.end());
        command.directory = scratch.path();
        return run(command).out;
    }

    void expectSame(std::vector<std::string> const& directories) const {
        Outcome const outcome = create(directories);
        EXPECT_EQ(expected(directories), outcome.out);
        EXPECT_THAT(outcome.err, IsEmpty());
        EXPECT_EQ(0, outcome.exitStatus);
    }

    void writeMany(std::string const& directory, int count) const {
        for (int i = 0; i < count; ++i) {
            scratch.write(directory + "/file " + std::to_string(1000 + i), std::to_string(i));
        }
    }

    ScratchDirectory scratch;
};

TEST_F(CreateTest, ManifestIsThatOfSha256sum) {
    scratch.write("d/b", "b\n");
    scratch.write("d/a", "a\n");
    scratch.write("d/sub/deeper/c", "c\n");
    scratch.write("d/empty", "");
    scratch.makeDirectory("d/nothing");
    scratch.write("d/large", std::string(5'000'000, 'x'));
    scratch.write("d/block", std::string(65536, 'y'));
    scratch.write("d/block and one", std::string(65537, 'y'));

    expectSame({"d"});
    EXPECT_EQ(expected({"d"}), create({"d", "--jobs", "3"}).out);
}

TEST_F(CreateTest, OddNamesAreEscapedAsSha256sumDoes) {
    std::vector<std::string> const names = {"newline\nin it",
                                            "back\\slash",
                                            "carriage\rreturn",
                                            "\\n",
                                            "-dash",
                                            "-",
                                            "per%s%n%%cent",
                                            " leading",
                                            "trailing ",
                                            "*star",
                                            "#hash",
                                            "'quotes\"",
                                            "not UTF-8 \xff\x80",
                                            "tab\there",
                                            "C:",
                                            "\x1b[31mred",
                                            "$(x)",
                                            "a\n\\\r"};
    for (auto const& name : names) {
        scratch.write("d/" + name, name);
    }
    expectSame({"d"});
    EXPECT_EQ(names.size(), scratch.entries("d"));
}

TEST_F(CreateTest, LinesAreSortedByTheBytesOfThePaths) {
    // A directory's contents come between its neighbours: "-" sorts before "/", and "0" after it.
    for (auto const* name : {"d/b/x", "d/b-", "d/b0", "d/B", "d/\xc3\xa9", "d/z"}) {
        scratch.write(name, name);
    }
    expectSame({"d"});
}

TEST_F(CreateTest, PathsBeginAsTheDirectoryIsSpelt) {
    scratch.write("d/a", "a");
    scratch.write("d/e/b", "b");
    for (auto const& spelt : std::vector<std::string>{"d", "d/", "d//", "./d", ".", "./", "d/../d",
                                                      "d/e/..", scratch.path("d")}) {
        SCOPED_TRACE(spelt);
        expectSame({spelt});
    }
}

TEST_F(CreateTest, SeveralDirectoriesMakeOneSortedList) {
    scratch.write("z/a", "1");
    scratch.write("y/b", "2");
    expectSame({"z", "y"});
}

TEST_F(CreateTest, WhatSeveralDirectoriesReachIsListedOnce) {
    scratch.write("z/a", "1");
    scratch.write("z/deep/b", "2");
    scratch.link("z", "again");
    std::string const once = expected({"z"});
    EXPECT_EQ(once, create({"z", "z"}).out);
    EXPECT_EQ(once, create({"z", "z/deep", "./z/", "again"}).out);
    EXPECT_EQ(once, create({"z/deep", "z"}).out);
}

TEST_F(CreateTest, LinksAreNeitherFollowedNorListed) {
    scratch.write("d/file", "file");
    scratch.write("outside/other", "other");
    scratch.link(".", "d/here");
    scratch.link("..", "d/up");
    scratch.link("../outside", "d/outside");
    scratch.link("file", "d/to file");
    scratch.link("nowhere", "d/dangling");
    scratch.link("loop", "d/loop");

    expectSame({"d"});
}

TEST_F(CreateTest, DirectoryNamedThroughALinkIsEntered) {
    scratch.write("d/file", "file");
    scratch.link("d", "link");
    expectSame({"link"});
}

TEST_F(CreateTest, OtherThanRegularFilesAreLeftOut) {
    scratch.write("d/file", "file");
    ASSERT_EQ(0, mkfifo(scratch.path("d/pipe").c_str(), 0600));
    expectSame({"d"});
}

TEST_F(CreateTest, EmptyDirectoryMakesAnEmptyManifest) {
    scratch.makeDirectory("d/e");
    Outcome const outcome = create({"d"});
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_THAT(outcome.err, IsEmpty());
    EXPECT_EQ(0, outcome.exitStatus);
}

TEST_F(CreateTest, ManyFilesOnSeveralWorkers) {
    writeMany("d", 700);
    expectSame({"d"});
    EXPECT_EQ(expected({"d"}), create({"d", "--jobs", "4", "--first", "d/file 1500"}).out);
}

TEST_F(CreateTest, DeepTreeNeedsFewDescriptors) {
    std::string path = "d";
    for (int i = 0; i < 200; ++i) {
        path += "/e";
    }
    scratch.write(path + "/file", "deep");
    Command limited = command({"d"});
    limited.descriptors = 40;
    EXPECT_EQ(expected({"d"}), run(limited).out);
}

TEST_F(CreateTest, DirectoryBeginningWithADash) {
    scratch.write("-d/a", "a");
    EXPECT_THAT(create({"--", "-d"}).out, EndsWith("  -d/a\n"));
}

TEST_F(CreateTest, FileThatAppearsUnderItsNameWhenComplete) {
    scratch.write("d/a", "a");
    Outcome const outcome = create({"d", "-o", "manifest"});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_EQ(expected({"d"}), scratch.read("manifest"));
    EXPECT_EQ(2u, scratch.entries()) << "nothing else is left behind";
}

TEST_F(CreateTest, OlderManifestIsReplacedAndKeepsItsPermissions) {
    scratch.write("d/a", "a");
    scratch.write("manifest", "old");
    scratch.permit("manifest", 0640);
    EXPECT_EQ(0, create({"d", "-o", scratch.path("manifest")}).exitStatus);
    EXPECT_EQ(expected({"d"}), scratch.read("manifest"));
    struct stat status = {};
    ASSERT_EQ(0, stat(scratch.path("manifest").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777u);
}

TEST_F(CreateTest, NewManifestHasThePermissionsOfAnyNewFile) {
    scratch.write("d/a", "a");
    scratch.write("d/other", "made with the same umask");
    ASSERT_EQ(0, create({"d", "-o", "manifest"}).exitStatus);
    struct stat manifest = {};
    struct stat other = {};
    ASSERT_EQ(0, stat(scratch.path("manifest").c_str(), &manifest));
    ASSERT_EQ(0, stat(scratch.path("d/other").c_str(), &other));
    EXPECT_EQ(other.st_mode, manifest.st_mode);
}

TEST_F(CreateTest, ManifestIsNotPartOfItself) {
    scratch.write("d/a", "a");
    std::string const without = expected({"."});
    scratch.link("d", "link");
    for (auto const& spelt :
         std::vector<std::string>{"d/manifest", "./d/manifest", "d/../d//manifest", "link/manifest",
                                  scratch.path("d/manifest")}) {
        SCOPED_TRACE(spelt);
        // The second time there is an older one in the tree.
        EXPECT_EQ(0, create({".", "-o", spelt}).exitStatus);
        EXPECT_EQ(0, create({".", "-o", spelt}).exitStatus);
        EXPECT_EQ(without, scratch.read("d/manifest"));
    }
}

TEST_F(CreateTest, NamesakeOfTheManifestElsewhereIsListed) {
    scratch.write("d/manifest", "not the one");
    ASSERT_EQ(0, create({".", "-o", "manifest"}).exitStatus);
    EXPECT_THAT(scratch.read("manifest"), EndsWith("  ./d/manifest\n"));
}

TEST_F(CreateTest, ManifestNameThatLooksLikeADrive) {
    scratch.write("d/a", "a");
    EXPECT_EQ(0, create({"d", "-o", "x:"}).exitStatus);
    EXPECT_EQ(expected({"d"}), scratch.read("x:"));
}

TEST_F(CreateTest, OutputMustBeAPlaceForAFile) {
    scratch.write("d/a", "a");
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    struct {
        char const* output;
        char const* message;
    } const rows[] = {
        {"d", "ovra-manifest: d: Is a directory\n"},
        {"pipe", "ovra-manifest: pipe: not a regular file\n"},
        {"missing/m", "ovra-manifest: missing/m: No such file or directory\n"},
        {"new/", "ovra-manifest: new/: Is a directory\n"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.output);
        Outcome const outcome = create({"d", "-o", row.output});
        EXPECT_EQ(1, outcome.exitStatus);
        EXPECT_EQ(row.message, outcome.err);
        EXPECT_EQ(2u, scratch.entries());
        EXPECT_EQ(1u, scratch.entries("d"));
    }
}

TEST_F(CreateTest, FullDiskLeavesTheOlderManifest) {
    writeMany("d", 100);
    scratch.write("manifest", "old");
    Command limited = command({"d", "-o", "manifest"});
    limited.fileBytes = 1000;
    Outcome const outcome = run(limited);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: manifest: File too large\n", outcome.err);
    EXPECT_EQ("old", scratch.read("manifest"));
    EXPECT_EQ(2u, scratch.entries());
}

TEST_F(CreateTest, LinkStaysAndItsTargetGetsTheManifest) {
    scratch.write("d/a", "a");
    scratch.makeDirectory("elsewhere");
    scratch.link("elsewhere/there", "relative");
    scratch.link(scratch.path("relative"), "manifest");
    for (int round = 0; round < 2; ++round) {  // The target is made, then replaced.
        EXPECT_EQ(0, create({"d", "-o", "manifest"}).exitStatus);
        EXPECT_TRUE(std::filesystem::is_symlink(scratch.path("manifest")));
        EXPECT_TRUE(std::filesystem::is_symlink(scratch.path("relative")));
        EXPECT_EQ(expected({"d"}), scratch.read("elsewhere/there"));
        EXPECT_EQ(1u, scratch.entries("elsewhere"));
        scratch.write("elsewhere/there", "old");
    }
}

TEST_F(CreateTest, StandardOutputThatCannotBeWrittenIsAFailure) {
    scratch.write("d/a", "a");
    Command full = command({"d"});
    full.outputFile = "/dev/full";
    Outcome const outcome = run(full);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: standard output: No space left on device\n", outcome.err);
}

TEST_F(CreateTest, MissingDirectoryIsReportedAndTheRestGoesOn) {
    scratch.write("d/a", "a");
    scratch.write("file", "f");
    Outcome const outcome = create({"missing", "d", "file"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ(expected({"d"}), outcome.out);
    EXPECT_EQ(
        "ovra-manifest: missing: No such file or directory\n"
        "ovra-manifest: file: Not a directory\n",
        outcome.err);
}

TEST_F(CreateTest, WhatMayNotBeReadIsReportedAndTheRestGoesOn) {
    scratch.write("d/a", "a");
    std::string const readable = expected({"d"});
    scratch.write("d/closed file", "secret");
    scratch.permit("d/closed file", 0);
    scratch.write("d/closed/x", "x");
    scratch.permit("d/closed", 0);
    scratch.write("d/listed/y", "y");
    scratch.permit("d/listed", 0400);

    Command asUser = command({"d"});
    asUser.unprivileged = true;
    Outcome const outcome = run(asUser);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ(readable, outcome.out);
    EXPECT_THAT(outcome.err, HasSubstr("ovra-manifest: d/closed: Permission denied\n"));
    EXPECT_THAT(outcome.err, HasSubstr("ovra-manifest: 'd/closed file': Permission denied\n"));
    EXPECT_THAT(outcome.err, HasSubstr("ovra-manifest: d/listed/y: Permission denied\n"));
}

TEST_F(CreateTest, FileThatVanishesIsReportedAndTheRestGoesOn) {
    writeMany("d", 400);
    StuckLog log(scratch.path("log"));
    Process program(command({"d", "-o", "manifest", "--log", "log"}));
    // The scan is over, and the log holds no more than a few files' lines: the last is not read
    // yet.
    log.waitFor("EXECUTING");
    std::filesystem::remove(scratch.path("d/file 1399"));
    program.alsoDrain(log.fileDescriptor());
    Outcome const outcome = program.finish();

    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: 'd/file 1399': No such file or directory\n", outcome.err);
    EXPECT_EQ(expected({"d"}), scratch.read("manifest"));
}

TEST_F(CreateTest, InterruptLeavesEverythingAsItWas) {
    writeMany("d", 400);
    scratch.write("manifest", "old");
    StuckLog log(scratch.path("log"));
    Process program(command({"d", "-o", "manifest", "--log", "log"}));
    log.waitFor("EXECUTING");
    program.send(SIGINT);
    ASSERT_TRUE(program.waitForError("interrupted: finishing the files that are being read\n"));
    program.alsoDrain(log.fileDescriptor());
    Outcome const outcome = program.finish();

    EXPECT_EQ(130, outcome.exitStatus);
    EXPECT_THAT(outcome.err, EndsWith(" of 400 files: no manifest written\n"));
    EXPECT_THAT(outcome.err, Not(HasSubstr("after 400 of"))) << "what was queued is not read";
    EXPECT_EQ("old", scratch.read("manifest"));
    EXPECT_EQ(3u, scratch.entries()) << "nothing else is left behind";
}

TEST_F(CreateTest, InterruptWithWorkersOfItsOwn) {
    writeMany("d", 400);
    StuckLog log(scratch.path("log"));
    Process program(command({"d", "--log", "log", "--jobs", "3"}));
    log.waitFor("EXECUTING");
    program.send(SIGINT);
    ASSERT_TRUE(program.waitForError("interrupted: finishing"));
    program.alsoDrain(log.fileDescriptor());
    Outcome const outcome = program.finish();

    EXPECT_EQ(130, outcome.exitStatus);
    EXPECT_THAT(outcome.out, IsEmpty());
    EXPECT_THAT(outcome.err, Not(HasSubstr("after 400 of")));
}

TEST_F(CreateTest, SecondInterruptEndsItAtOnce) {
    writeMany("d", 400);
    StuckLog log(scratch.path("log"));
    Process program(command({"d", "-o", "manifest", "--log", "log"}));
    log.waitFor("EXECUTING");
    program.send(SIGINT);
    ASSERT_TRUE(program.waitForError("interrupted: finishing"));
    program.send(SIGINT);  // While the log still holds the worker up.
    EXPECT_EQ(SIGINT, program.finish().signal);
    EXPECT_EQ(2u, scratch.entries());
}

TEST_F(CreateTest, IgnoredInterruptStaysIgnored) {
    writeMany("d", 400);
    StuckLog log(scratch.path("log"));
    Command background = command({"d", "--log", "log"});
    background.interruptIgnored = true;
    Process program(background);
    log.waitFor("EXECUTING");
    program.send(SIGINT);
    program.alsoDrain(log.fileDescriptor());
    Outcome const outcome = program.finish();
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_EQ(expected({"d"}), outcome.out);
}

TEST_F(CreateTest, ProgressIsShownOnATerminalAndTakenAwayAgain) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "this machine gives out no terminals: /dev/pts is missing";
    }
    scratch.write("d/a", std::string(2'500'000, 'a'));
    scratch.write("d/b", "b");
    Command watched = command({"d", "-o", "manifest"});
    watched.onTerminal = true;
    Outcome const outcome = run(watched);
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.err, StartsWith("\r\x1b[Kwalking, 1 found"));
    EXPECT_THAT(outcome.err, HasSubstr("\r\x1b[K0 of 2 files, "));
    EXPECT_THAT(outcome.err, HasSubstr(" of 2.5 MB, "));
    EXPECT_THAT(outcome.err, EndsWith(" MB/s\r\x1b[K"));
    EXPECT_THAT(outcome.err, Not(HasSubstr(" left"))) << "nobody knows that yet";

    watched.noColour = true;
    EXPECT_THAT(run(watched).err, Not(HasSubstr("\x1b")));
    watched.terminal = "dumb";
    EXPECT_THAT(run(watched).err, IsEmpty());
}

TEST_F(CreateTest, LogFileTellsOfEveryTask) {
    scratch.write("d/a", "a");
    scratch.write("d/per%s%n\ncent", "p");
    scratch.write("d/large", std::string(1 << 20, 'l'));
    EXPECT_EQ(0, create({"d", "--log", "log", "--first", "d/large", "--jobs", "3"}).exitStatus);
    std::string const log = scratch.read("log");
    // Doubled for the system log, which reads each line as a format; and one line stays one.
    EXPECT_THAT(log, HasSubstr("Moving current task 'd/per%%s%%n?cent' into DONE state.\n"));
    EXPECT_THAT(log, HasSubstr("[create():INFO] 2 tasks at HIGH, 1 at NORMAL, 1 of them raised to "
                               "HIGHEST.\n"));
    EXPECT_THAT(log, HasSubstr("[create():INFO] Read 3 of 3 files, 1048578 bytes, in "));
}

TEST_F(CreateTest, FailuresAreLoggedAsWarnings) {
    scratch.makeDirectory("d");
    EXPECT_EQ(1, create({"d", "100%", "--log", "log"}).exitStatus);
    EXPECT_THAT(scratch.read("log"),
                HasSubstr("[complain():WARNING] 100%%: No such file or directory\n"));
}

TEST_F(CreateTest, LogInADirectoryIsNamedOvraLog) {
    scratch.write("d/a", "a");
    EXPECT_EQ(0, create({"d", "--log", "."}).exitStatus);
    EXPECT_THAT(scratch.read("ovra.log"), HasSubstr("'d/a' into DONE"));
}

TEST_F(CreateTest, LogIsNotPartOfTheManifest) {
    scratch.write("d/a", "a");
    std::string const without = expected({"d"});
    EXPECT_EQ(without, create({"d", "--log", "d"}).out);
    EXPECT_EQ(without, create({"d", "--log", "./d/../d/ovra.log"}).out);
    EXPECT_EQ(2u, scratch.entries("d"));
}

TEST_F(CreateTest, LogThatCannotBeWrittenIsAFailure) {
    scratch.write("d/a", "a");
    Outcome const outcome = create({"d", "--log", "missing/log"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: missing/log: cannot be written\n", outcome.err);
    EXPECT_THAT(outcome.out, IsEmpty());
}

TEST_F(CreateTest, VerboseLogsToStandardOutput) {
    scratch.write("d/a", "a");
    Outcome const outcome = create({"d", "-o", "manifest", "--verbose"});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(outcome.out, HasSubstr("Moving current task 'd/a' into DONE state.\n"));
    EXPECT_EQ(expected({"d"}), scratch.read("manifest"));
}

TEST_F(CreateTest, WithoutLogOptionsNothingIsLogged) {
    scratch.write("d/a", "a");
    Outcome const outcome = create({"d", "-o", "manifest"});
    EXPECT_THAT(outcome.out + outcome.err, IsEmpty());
}

TEST_F(CreateTest, FirstThatNamesNothingIsPointedOut) {
    scratch.write("d/ab", "a");
    Outcome const outcome = create({"d", "--first", "d/a"});
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: --first d/a: nothing there\n", outcome.err);
    EXPECT_EQ(expected({"d"}), outcome.out);
}

}  // namespace
