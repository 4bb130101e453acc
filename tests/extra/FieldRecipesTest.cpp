// The programs on the guide's page "In the field", as a reader would run them.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/examples/Process.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>

#include <tests/extra/RotatingFileSupport.h>

namespace ovra::test {
namespace {

using log::test::contentOf;
using log::test::linesOf;
using log::test::writeFile;
using ovra::test::ScratchDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// What comes from outside may hold anything. Taken as a format, this ends the process.
std::string const CONVERSIONS = "%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%n";

class FieldRecipesTest : public BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

std::string recipe(std::string const& name) {
    return FIELD_RECIPES + name;
}

// Without the time that each begins with.
std::vector<std::string> messagesOf(std::string const& text) {
    std::vector<std::string> messages;
    for (std::string const& line : linesOf(text)) {
        messages.push_back(extra::withoutStamp(line));
    }
    return messages;
}

// A program whose standard input the test goes on writing.
class Fed {
public:
    Fed(std::string const& program, std::string const& argument) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        child = fork();
        if (child == 0) {
            dup2(ends[0], STDIN_FILENO);
            char* const arguments[] = {const_cast<char*>(program.c_str()),
                                       const_cast<char*>(argument.c_str()), nullptr};
            execv(program.c_str(), arguments);
            _exit(127);
        }
        close(ends[0]);
        input = ends[1];
    }
    Fed(Fed const&) = delete;
    Fed& operator=(Fed const&) = delete;
    ~Fed() {
        if (child > 0) {
            finish();
        }
    }

    void feed(std::string const& line) {
        EXPECT_EQ(write(input, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    void send(int signal) const { kill(child, signal); }
    int finish() {
        close(input);
        int status = 0;
        waitpid(child, &status, 0);
        child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t child = -1;
    int input = -1;
};

Outcome runProgram(std::vector<std::string> const& arguments) {
    Command command;
    command.arguments = arguments;
    return run(command);
}

void waitForText(std::string const& file, std::string const& text) {
    yieldUntil([&] { return contentOf(file).find(text) != std::string::npos; });
}

TEST_F(FieldRecipesTest, TheServiceFollowsItsLogFile) {
    Fed service(recipe("serviceLog"), path);
    service.feed("one\ntwo\n");
    waitForText(path, "two");
    std::filesystem::rename(path, path + ".1");
    service.send(SIGHUP);
    // The signal may come after the next line, which then is the last in the old file.
    for (int line = 0; !std::filesystem::exists(path); ++line) {
        service.feed("more " + std::to_string(line) + "\n");
        std::this_thread::yield();
    }
    service.feed(CONVERSIONS + "\n");
    EXPECT_EQ(service.finish(), 0);
    auto const before = messagesOf(contentOf(path + ".1"));
    ASSERT_GE(before.size(), 3u);
    EXPECT_EQ(before[0], "[service:INFO] Working on one.");
    EXPECT_EQ(before[1], "[service:WARNING] The battery is low.");
    EXPECT_EQ(before[2], "[service:INFO] Working on two.");
    EXPECT_EQ(messagesOf(contentOf(path)).back(), "[service:INFO] Working on " + CONVERSIONS + ".");
}

TEST_F(FieldRecipesTest, TheCrashLeavesItsLastLines) {
    Outcome const outcome = runProgram({recipe("crashDump"), path});
    EXPECT_EQ(outcome.signal, SIGSEGV) << outcome.err;
    std::string expected;
    for (int step = 51; step <= 150; ++step) {
        expected += "[worker:DEBUG] Step " + std::to_string(step) + ".\n";
    }
    EXPECT_EQ(contentOf(path), expected);
}

TEST_F(FieldRecipesTest, TheSwitchChangesWhatIsLoggedAndWhere) {
    std::string const other = directory.path("other");
    Fed service(recipe("switchSink"), path);
    service.feed("first\ntalk\nsecond\nhush\nthird\ntalk\nother " + other + "\n" + CONVERSIONS +
                 "\n");
    EXPECT_EQ(service.finish(), 0);
    EXPECT_THAT(messagesOf(contentOf(path)), ElementsAre("[service:DEBUG] second"));
    EXPECT_THAT(messagesOf(contentOf(other)), ElementsAre("[service:DEBUG] " + CONVERSIONS));
}

TEST_F(FieldRecipesTest, TheFileIsSavedOrTheReasonSaid) {
    EXPECT_EQ(runProgram({recipe("saveFile"), path, "new"}).exitStatus, 0);
    EXPECT_EQ(contentOf(path), "new\n");
    Outcome const outcome = runProgram({recipe("saveFile"), directory.path("none/x"), "new"});
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_THAT(outcome.err, HasSubstr("is not saved: MISSING."));
}

TEST_F(FieldRecipesTest, TheSecondInstanceIsRefused) {
    {
        Fed first(recipe("oneInstance"), path);
        waitForText(path, "\n");  // Its process id.
        Outcome const second = runProgram({recipe("oneInstance"), path});
        EXPECT_EQ(second.exitStatus, 2);
        EXPECT_EQ(second.err, "Runs already.\n");
        EXPECT_EQ(first.finish(), 0);
    }
    EXPECT_EQ(runProgram({recipe("oneInstance"), path}).exitStatus, 0);
    EXPECT_EQ(runProgram({recipe("oneInstance"), directory.path("none/x")}).exitStatus, 1);
}

// As an ordinary user: a removal that goes astray then finds nothing that it may remove.
TEST_F(FieldRecipesTest, TheTreeIsRemoved) {
    constexpr uid_t NOBODY = 65534;
    std::string const tree = directory.path("tree");
    std::filesystem::create_directories(tree + "/a/b");
    writeFile(tree + "/a/file", "x");
    writeFile(path, "spared");
    std::filesystem::create_symlink(path, tree + "/a/b/link");
    if (geteuid() == 0) {
        for (std::string const& entry :
             {directory.path(), tree, tree + "/a", tree + "/a/b", tree + "/a/file"}) {
            ASSERT_EQ(chown(entry.c_str(), NOBODY, NOBODY), 0);
        }
    }
    std::string const program = recipe("removeTree");
    for (int round = 0; round < 2; ++round) {  // The second time there is nothing there.
        pid_t const child = fork();
        if (child == 0) {
            if (geteuid() == 0 && (setgid(NOBODY) != 0 || setuid(NOBODY) != 0)) {
                _exit(126);
            }
            if (access(program.c_str(), X_OK) != 0) {
                _exit(125);
            }
            char* const arguments[] = {const_cast<char*>(program.c_str()),
                                       const_cast<char*>(tree.c_str()), nullptr};
            execv(program.c_str(), arguments);
            _exit(127);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == 125) {
            GTEST_SKIP() << "only root can reach the program here";
        }
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_FALSE(std::filesystem::exists(tree));
    }
    EXPECT_EQ(contentOf(path), "spared");
}

}  // namespace
}  // namespace ovra::test
