#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include <examples/manifest/Check.h>
#include <examples/manifest/Digest.h>
#include <examples/manifest/FileSearch.h>
#include <examples/manifest/Interrupt.h>
#include <examples/manifest/ManifestFile.h>
#include <examples/manifest/ManifestLine.h>
#include <examples/manifest/Messages.h>
#include <examples/manifest/Quote.h>
#include <examples/manifest/Sha256.h>
#include <tests/examples/Digests.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/ScratchDirectory.h>

namespace {

using namespace manifest;
using namespace ovra::test;
using ::testing::EndsWith;
using ::testing::IsEmpty;

TEST(Sha256Test, PublishedDigests) {
    Sha256 sha256;
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
              digitsOf(sha256.finish()));
    sha256.restart();
    sha256.add("a", 1);
    sha256.restart();
    sha256.add("a", 1);
    sha256.add("bc", 2);
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
              digitsOf(sha256.finish()));
}

TEST(QuoteTest, QuotesOnlyWhatNeedsIt) {
    struct {
        char const* name;
        char const* quoted;
    } const rows[] = {
        {"a.txt", "a.txt"},
        {"", "''"},
        {"a b", "'a b'"},
        {"it's", "\"it's\""},
        {"it's $5", "'it'\\''s $5'"},
        {"a\nb", "'a'$'\\n''b'"},
        {"\xff", "''$'\\377'"},
        {"{", "'{'"},
        {"{a}", "{a}"},
        {"#a", "'#a'"},
        {"a#", "a#"},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(row.quoted, quoted(row.name)) << "of " << row.name;
    }
}

TEST(MessagesTest, LogTextIsHarmlessToTheSystemLog) {
    EXPECT_EQ("100%%s", forLog("100%s"));
    EXPECT_EQ("%%%%", forLog("%%"));
    EXPECT_EQ("a?b?c?\xc3\xa9", forLog("a\nb\x1b"
                                       "c\x7f\xc3\xa9"));
}

TEST(ManifestLineTest, EscapedLinesCanBeReadBack) {
    for (std::string const path : {"d/a", "d/new\nline", "d/back\\slash", "d/cr\r", "\\n", " *"}) {
        std::string line = manifestLine({std::string(64, 'a'), path});
        ASSERT_EQ('\n', line.back());
        line.pop_back();
        EXPECT_EQ(std::string::npos, line.find('\n'));
        auto const entry = ManifestReader().parse(line);
        ASSERT_TRUE(entry.has_value()) << line;
        EXPECT_EQ(path, entry->path);
        EXPECT_EQ(std::string(64, 'a'), entry->digest);
    }
}

class ManifestFileTest : public ::testing::Test {
protected:
    ScratchDirectory scratch;
};

TEST_F(ManifestFileTest, GoesAwayUnlessMovedIntoPlace) {
    {
        ManifestFile file(scratch.path("m"));
        EXPECT_EQ(0u, scratch.entries());
        file.write("text");
        EXPECT_EQ(1u, scratch.entries());
        EXPECT_FALSE(scratch.exists("m"));
    }
    EXPECT_EQ(0u, scratch.entries());
}

TEST_F(ManifestFileTest, IsCompleteWhenItAppears) {
    {
        ManifestFile file(scratch.path("m"));
        file.write("text");
        file.moveIntoPlace();
        EXPECT_EQ("text", scratch.read("m"));
    }
    EXPECT_EQ(1u, scratch.entries());
}

TEST_F(ManifestFileTest, DoesNotMoveIntoADirectoryThatTookThePlace) {
    ManifestFile file(scratch.path("m"));
    file.write("text");
    scratch.makeDirectory("m");
    EXPECT_THROW(file.moveIntoPlace(), std::runtime_error);
    EXPECT_EQ(0u, scratch.entries("m"));
}

class WalkTest : public ::testing::Test {
protected:
    ScratchDirectory scratch;
    Interrupt interrupt;
};

TEST_F(WalkTest, StopsOnInterrupt) {
    scratch.write("a", "a");
    interrupt.request();
    FileSearch search(interrupt);
    search.addFilesBelow(scratch.path());
    EXPECT_THAT(search.sortedFiles(), IsEmpty());
}

TEST_F(WalkTest, TellsTheSizes) {
    scratch.write("a", "12345");
    FileSearch search(interrupt);
    search.addFilesBelow(scratch.path());
    auto const files = search.sortedFiles();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(scratch.path("a"), files[0].path);
    EXPECT_EQ(5, files[0].sizeBytes);
    EXPECT_TRUE(search.isComplete());
}

// Standard output that presses Ctrl-C once `text` has been written to it.
class InterruptingOutput : public std::stringbuf {
public:
    InterruptingOutput(std::string const& text, Interrupt& pressed)
        : awaited(text), interrupt(pressed), before(std::cout.rdbuf(this)) {}
    ~InterruptingOutput() override { std::cout.rdbuf(before); }

protected:
    std::streamsize xsputn(char const* text, std::streamsize size) override {
        std::streamsize const written = std::stringbuf::xsputn(text, size);
        if (str().find(awaited) != std::string::npos) {
            interrupt.request();
        }
        return written;
    }

private:
    std::string const awaited;
    Interrupt& interrupt;
    std::streambuf* const before;
};

TEST_F(WalkTest, InterruptEndsACheckThatLooksForNewFiles) {
    scratch.write("d/a", "alpha");
    scratch.write("d/b", "beta");
    scratch.write("manifest", ALPHA + "  " + scratch.path("d/a") + '\n');
    Options options;
    options.manifest = scratch.path("manifest");
    options.newBelow = scratch.path("d");
    options.jobs = 1;
    for (auto const* text : {"d/a: OK\n", "d/b: NEW\n"}) {
        Interrupt pressed;
        InterruptingOutput const output(text, pressed);
        EXPECT_EQ(INTERRUPTED, check(options, pressed)) << text;
        EXPECT_THAT(output.str(), EndsWith(text)) << "nothing follows";
    }
}

TEST_F(WalkTest, InterruptEndsTheReadingOfAManifest) {
    scratch.write("a", "alpha");
    scratch.write("manifest", ALPHA + "  " + scratch.path("a") + '\n');
    Options options;
    options.manifest = scratch.path("manifest");
    interrupt.request();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(INTERRUPTED, check(options, interrupt));
    EXPECT_EQ("ovra-manifest: interrupted while reading the manifest\n",
              ::testing::internal::GetCapturedStderr());
}

// A script in the background lets its programs ignore SIGINT, and this one inherits that.
class InterruptTest : public BoundedTest {
protected:
    InterruptTest() {
        struct sigaction byDefault = {};
        byDefault.sa_handler = SIG_DFL;
        EXPECT_EQ(sigaction(SIGINT, &byDefault, &before), 0);
    }
    ~InterruptTest() override { sigaction(SIGINT, &before, nullptr); }

private:
    struct sigaction before = {};
};

[[noreturn]] void exitOnceInterrupted() {
    Watchdog const watchdog;
    Interrupt interrupt;
    bool const wasRequested = interrupt.requested();
    Gate called;
    interrupt.onRequest([&] { called.open(); });
    kill(getpid(), SIGINT);
    called.wait();
    std::_Exit(!wasRequested && interrupt.requested() ? 0 : 1);
}

// In a process of its own: a thread that an earlier test left might take the signal.
TEST_F(InterruptTest, SignalCallsTheAction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitOnceInterrupted(), ::testing::ExitedWithCode(0), "");
}

TEST_F(InterruptTest, IgnoredSignalIsLeftAlone) {
    signal(SIGINT, SIG_IGN);
    Interrupt interrupt;
    sigset_t blocked;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 0);
}

TEST_F(InterruptTest, ActionThatComesTooLateIsCalledAtOnce) {
    Interrupt interrupt;
    interrupt.request();
    bool called = false;
    interrupt.onRequest([&] { called = true; });
    EXPECT_TRUE(called);
}

TEST_F(InterruptTest, ActionTakenBackIsNotCalled) {
    Interrupt interrupt;
    bool called = false;
    interrupt.onRequest([&] { called = true; });
    interrupt.onRequest({});
    interrupt.request();
    EXPECT_FALSE(called);
}

}  // namespace
