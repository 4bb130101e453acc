#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <tests/examples/Digests.h>
#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace ovra::test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// More files than the program has tasks at a time.
class ManyFilesTest : public BoundedTest {
protected:
    static constexpr int COUNT = 2500;

    Command command(std::vector<std::string> const& arguments) const {
        Command command;
        command.arguments = arguments;
        command.directory = scratch.path();
        return command;
    }

    static std::string name(int number) { return "d/file " + std::to_string(10'000 + number); }

    static std::string withoutLogLines(std::string const& text) {
        std::string result;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.front() != '[') {
                result += line + '\n';
            }
        }
        return result;
    }

    ScratchDirectory scratch;
};

TEST_F(ManyFilesTest, ManifestIsThatOfSha256sum) {
    for (int i = 0; i < COUNT; ++i) {
        // Every 1000th is a large one, which is hashed after all others.
        scratch.write(name(i), i % 1000 == 0 ? std::string(1 << 20, 'x') : std::to_string(i));
    }
    std::string const expected =
        run(command({"sh", "-c", "find d -type f -print0 | LC_ALL=C sort -z | xargs -0 sha256sum"}))
            .out;
    Outcome const outcome = run(command(
        {OVRA_MANIFEST, "create", "d", "--jobs", "2", "--first", name(2000), "--log", "log"}));
    EXPECT_EQ(expected, outcome.out);
    EXPECT_THAT(outcome.err, IsEmpty());
    EXPECT_EQ(0, outcome.exitStatus);
    EXPECT_THAT(scratch.read("log"),
                HasSubstr("2497 tasks at HIGH, 3 at NORMAL, 1 of them raised to HIGHEST.\n"));

    EXPECT_EQ(0, run(command({OVRA_MANIFEST, "create", "d", "-o", "manifest"})).exitStatus);
    EXPECT_EQ(expected, scratch.read("manifest"));
}

TEST_F(ManyFilesTest, CheckReportsInTheOrderOfTheManifest) {
    std::string manifest;
    std::string expected;
    for (int i = 0; i < COUNT; ++i) {
        bool const isMissing = i % 7 == 0;
        bool const isLarge = i == 5;
        if (!isMissing) {
            scratch.write(name(i), isLarge ? std::string(1 << 20, 'x') : "alpha");
        }
        manifest += ALPHA + "  " + name(i) + '\n';
        expected += name(i) + (isMissing ? ": FAILED open or read\n"
                               : isLarge ? ": FAILED\n"
                                         : ": OK\n");
    }
    scratch.write("manifest", manifest);
    Outcome const outcome = run(command({OVRA_MANIFEST, "check", "manifest", "--jobs", "2"}));
    EXPECT_EQ(expected, outcome.out);
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_THAT(outcome.err,
                EndsWith("WARNING: 358 listed files could not be read\n"
                         "ovra-manifest: WARNING: 1 computed checksum did NOT match\n"));
    Outcome const verbose = run(command({OVRA_MANIFEST, "check", "manifest", "--verbose"}));
    EXPECT_EQ(expected, withoutLogLines(verbose.out));
}

TEST_F(ManyFilesTest, InterruptSkipsAlsoWhatIsNotQueuedYet) {
    // One worker: it is reading the pipe when the interrupt comes.
    scratch.write("a", "alpha");
    std::string const pipe = "/dev/.." + scratch.path("pipe");
    ASSERT_EQ(0, mkfifo(scratch.path("pipe").c_str(), 0600));
    std::string manifest = ALPHA + "  a\n" + ALPHA + "  " + pipe + '\n';
    for (int i = 0; i < COUNT; ++i) {
        manifest += ALPHA + "  a\n";
    }
    scratch.write("manifest", manifest);
    Process program(command({OVRA_MANIFEST, "check", "manifest", "--jobs", "1"}));
    {
        std::ofstream writer(scratch.path("pipe"));  // Returns when the program has opened it too.
        program.send(SIGINT);
        ASSERT_TRUE(program.waitForError("interrupted: finishing the files that are being read\n"));
        writer << "alpha";
    }
    Outcome const outcome = program.finish();
    EXPECT_EQ("a: OK\n" + pipe + ": OK\n", outcome.out);
    EXPECT_THAT(outcome.err, EndsWith("ovra-manifest: interrupted after 2 of 2502 files\n"));
    EXPECT_EQ(130, outcome.exitStatus);
}

// What a file more takes, so that two million fit into a small device's memory.
TEST_F(ManyFilesTest, AFileTakesAtMost250BytesOfMemory) {
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizer takes memory of its own";
    }
    constexpr int FEW = 10'000;
    constexpr int MANY = 40'000;
    scratch.write(name(0), "one file");
    auto const peakOf = [&](std::vector<std::string> const& arguments) {
        Outcome const outcome = run(command(arguments));
        EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
        return outcome.peakKilobytes;
    };
    long createPeaks[2];
    long checkPeaks[2];
    int linked = 1;
    for (int i = 0; i < 2; ++i) {
        for (; linked < (i == 0 ? FEW : MANY); ++linked) {
            ASSERT_EQ(link(scratch.path(name(0)).c_str(), scratch.path(name(linked)).c_str()), 0);
        }
        createPeaks[i] = peakOf({OVRA_MANIFEST, "create", "d", "-o", "manifest"});
        checkPeaks[i] = peakOf({OVRA_MANIFEST, "check", "--quiet", "manifest"});
    }
    for (long const* peaks : {createPeaks, checkPeaks}) {
        long const bytes = (peaks[1] - peaks[0]) * 1024 / (MANY - FEW);
        EXPECT_LE(bytes, 250);
        EXPECT_GE(bytes, 50) << "a digest and a path are kept";
    }
}

}  // namespace
