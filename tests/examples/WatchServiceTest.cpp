// `ovra-manifest watch` as a service: signals, the service manager, logs, and what it takes of the
// machine.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <thread>

#include <tests/examples/HungFile.h>
#include <tests/examples/StuckLog.h>
#include <tests/examples/WatchFixture.h>

namespace {

using namespace ovra::test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

class WatchServiceTest : public WatchFixture {
protected:
    // Starts a round that is held up by "d/a", and returns once it is.
    void startHungRound(Command const& made) {
        hung.reset();
        hung = std::make_unique<HungFile>(scratch.path("d/a"));
        start(made);
        hung->waitForReader();
    }

    // Five seconds are allowed; the rest is for a machine that is slow.
    Outcome endInTime() {
        auto const begin = std::chrono::steady_clock::now();
        Outcome const outcome = end();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
        return outcome;
    }

    // How many threads of the program give way to everything else.
    std::size_t threadsInTheBackground() const {
        std::size_t count = 0;
        std::error_code ignored;
        for (auto const& entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(process->id()) + "/task", ignored)) {
            auto const thread = static_cast<id_t>(std::stol(entry.path().filename()));
            bool const isNice = getpriority(PRIO_PROCESS, thread) == 19;
            bool const isIdle = syscall(SYS_ioprio_get, 1, thread) >> 13 == 3;
            EXPECT_EQ(isNice, isIdle);
            count += isNice ? 1 : 0;
        }
        return count;
    }

    // A worker has the name of its task.
    std::set<std::string> threadNames() const {
        std::set<std::string> result;
        std::error_code ignored;
        for (auto const& entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(process->id()) + "/task", ignored)) {
            std::ifstream stream(entry.path() / "comm");
            std::string name;
            std::getline(stream, name);
            result.insert(name);
        }
        return result;
    }

    // Lists `count` files more, "d/m00000" and so on, each of which is the same as "d/a".
    void listMany(unsigned int count) const {
        std::string lines = ALPHA + "  d/a\n" + BETA + "  d/b\n";
        for (unsigned int number = 0; number < count; ++number) {
            std::string const name = "d/m" + std::to_string(10000 + number);
            std::filesystem::create_hard_link(scratch.path("d/a"), scratch.path(name));
            lines += ALPHA + "  " + name + '\n';
        }
        scratch.write("manifest", lines);
    }

    // What has been resident at most, in KiB.
    long mostResident() const {
        std::ifstream stream("/proc/" + std::to_string(process->id()) + "/status");
        for (std::string line; std::getline(stream, line);) {
            if (line.rfind("VmHWM:", 0) == 0) {
                return std::stol(line.substr(line.find_first_of("0123456789")));
            }
        }
        ADD_FAILURE() << "unknown to the system";
        return 0;
    }

    // Has a round run, and then an answer held up that nobody reads.
    void startHungAnswer(StuckLog& errors) {
        errors.waitFor("");
        Command made = command({});
        made.errorFile = scratch.path("pipe");
        start(made);
        roundEnded(1);
        process->send(SIGUSR1);
        yieldUntil([this] { return threadNames().count("request") != 0; });
    }

    std::unique_ptr<HungFile> hung;
};

TEST_F(WatchServiceTest, SaysWhenItIsReadyAndWhenItStops) {
    start();
    EXPECT_EQ("READY=1", socket.waitFor(""));
    EXPECT_EQ("STATUS=Round 1: files: 2, findings: 0", socket.waitFor(""));
    EXPECT_EQ(0, end().exitStatus);
    EXPECT_EQ("STOPPING=1", socket.waitFor(""));
    EXPECT_THAT(socket.take(), IsEmpty());
}

TEST_F(WatchServiceTest, SaysThatItIsReadyAsSoonAsTheSocketTakesIt) {
    socket.fill();
    start({"--log", "log"});
    yieldUntil([this] {
        return scratch.exists("log") && scratch.read("log").find("Started") != std::string::npos;
    });
    socket.waitFor("READY=1");
    end();
}

TEST_F(WatchServiceTest, SocketMayHaveANameThatIsInNoDirectory) {
    NotifySocket abstract("@" + scratch.path("abstract"));
    Command made = command({});
    made.environment = {{"NOTIFY_SOCKET", abstract.address()}};
    start(made);
    EXPECT_EQ("READY=1", abstract.waitFor(""));
    end();
}

TEST_F(WatchServiceTest, NoSocketIsNeeded) {
    for (std::string const& address :
         {std::string(), std::string("x"), scratch.path("no"), std::string(200, 'x')}) {
        Command made = command({"--rounds", "1"});
        made.environment = {{"NOTIFY_SOCKET", address}};
        EXPECT_EQ(0, run(made).exitStatus);
    }
}

TEST_F(WatchServiceTest, GivesSignsOfLifeAsOftenAsAsked) {
    Command made = command({});
    made.environment.emplace_back("WATCHDOG_USEC", "20000");
    start(made);
    roundEnded(1);
    for (int sign = 0; sign < 5; ++sign) {
        EXPECT_EQ("WATCHDOG=1", socket.waitFor("WATCHDOG"));
    }
    end();
}

TEST_F(WatchServiceTest, GivesSignsOfLifeWhileTheRateHoldsARoundBack) {
    Command made = command({"--rate", "1"});
    made.environment.emplace_back("WATCHDOG_USEC", "1000000");
    start(made);
    for (int sign = 0; sign < 3; ++sign) {
        EXPECT_EQ("WATCHDOG=1", socket.waitFor("WATCHDOG"));
    }
    end();
    EXPECT_THAT(socket.take(), Not(Contains(StartsWith("STATUS"))));
}

TEST_F(WatchServiceTest, GivesNoSignOfLifeWhileARoundStandsStill) {
    Command made = command({});
    made.environment.emplace_back("WATCHDOG_USEC", "10000");
    startHungRound(made);
    socket.take();
    // At most one more, for what was done until then.
    std::size_t signs = 0;
    auto const until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < until) {
        signs += socket.take().size();
        std::this_thread::yield();
    }
    EXPECT_LE(signs, 1u);
    hung->release();
    roundEnded(1);
    socket.waitFor("WATCHDOG");
    end();
}

TEST_F(WatchServiceTest, SignsOfLifeOfAnotherProcessAreNotGiven) {
    Command made = command({"--rounds", "1"});
    made.environment.emplace_back("WATCHDOG_USEC", "1");
    made.environment.emplace_back("WATCHDOG_PID", "1");
    run(made);
    EXPECT_THAT(socket.take(), Not(Contains("WATCHDOG=1")));
}

// The system would go on with the file after 45 seconds at the earliest.
TEST_F(WatchServiceTest, EndsWhileAFileHangs) {
    startHungRound(command({"--log", "log", "--status", "status"}));
    EXPECT_EQ(0, endInTime().exitStatus);
    EXPECT_THAT(scratch.read("log"), EndsWith("Ended in the middle of a file.\n"));
    EXPECT_THAT(scratch.read("status"), HasSubstr("\"nextFile\": \"d/a\""));
}

TEST_F(WatchServiceTest, EndsWhileTheStatusOfTheLastRunHangs) {
    runOnce({"--status", "status"});
    hung = std::make_unique<HungFile>(scratch.path("status"));
    start({"--status", "status"});
    hung->waitForReader();
    EXPECT_EQ(SIGTERM, endInTime().signal);
}

TEST_F(WatchServiceTest, AnswersAndEndsWhileNobodyReadsItsOutput) {
    StuckLog stuck(scratch.path("pipe"));
    scratch.write("d/a", "other");
    scratch.write("d/b", "other");
    HungFile const second(scratch.path("d/b"));
    Command made = command({});
    made.outputFile = scratch.path("pipe");
    start(made);
    stuck.waitFor("d/a: CHANGED\n");
    second.waitForReader();
    second.release();  // From here on there is a line to write that nobody reads.
    process->send(SIGUSR1);
    ASSERT_TRUE(process->waitForError("(all workers are reading)"));
    EXPECT_EQ(0, endInTime().exitStatus);
}

TEST_F(WatchServiceTest, RoundsGoOnWhileNobodyReadsItsAnswers) {
    StuckLog stuck(scratch.path("pipe"));
    startHungAnswer(stuck);
    process->send(SIGUSR1);
    EXPECT_EQ("files: 2, findings: 0", nextRound(2));
    end(SIGKILL);
}

// The thread that answers cannot be joined, so that a timer ends the process.
TEST_F(WatchServiceTest, EndsWhileNobodyReadsItsAnswer) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer reports the thread that is left to the same pipe";
#endif
    StuckLog stuck(scratch.path("pipe"));
    startHungAnswer(stuck);
    EXPECT_EQ(0, endInTime().exitStatus);
}

TEST_F(WatchServiceTest, GoesOnWhenTheReaderOfItsOutputIsGone) {
    {
        StuckLog const reader(scratch.path("pipe"));
        Command made = command({});
        made.outputFile = scratch.path("pipe");
        start(made);
        roundEnded(1);
    }
    scratch.write("d/a", "other");
    EXPECT_EQ("files: 2, findings: 1", nextRound(2));
    EXPECT_EQ(0, end().exitStatus);
}

TEST_F(WatchServiceTest, EndsInTheMiddleOfALongFile) {
    scratch.write("d/b", std::string(100000, 'b'));
    scratch.write("d/a", "other");
    start({"--rate", "100"});
    ASSERT_TRUE(process->waitForOutput("d/a: CHANGED\n"));
    EXPECT_EQ(0, end().exitStatus);
    EXPECT_THAT(socket.take(), Not(Contains(StartsWith("STATUS"))));
}

TEST_F(WatchServiceTest, CtrlCEndsItUnlessItIsIgnored) {
    start();
    roundEnded(1);
    EXPECT_EQ(130, end(SIGINT).exitStatus);

    Command ignoring = command({});
    ignoring.interruptIgnored = true;
    start(ignoring);
    roundEnded(1);
    process->send(SIGINT);
    nextRound(2);
    EXPECT_EQ(0, end().exitStatus);
}

TEST_F(WatchServiceTest, ShowsWhatRunsAndWhatWaitsAndAnswersBeforeTheNextFile) {
    startHungRound(command({"-j1"}));
    process->send(SIGUSR1);
    ASSERT_TRUE(process->waitForError("status waiting"));
    hung->release();
    ASSERT_TRUE(process->waitForError("round 1: 1 of 2 files checked, findings: 0\n"));
    EXPECT_THAT(end().err,
                AllOf(HasSubstr("[watch():WARNING] Started, process "), HasSubstr("d/a running ")));
}

TEST_F(WatchServiceTest, AnswersWhileAllWorkersHang) {
    startHungRound(command({}));
    process->send(SIGUSR1);
    ASSERT_TRUE(process->waitForError(
        "round 1: 0 of 2 files checked, findings: 0 (all workers are reading)\n"));
    hung->release();
    roundEnded(1);
    process->send(SIGUSR1);
    ASSERT_TRUE(process->waitForError("round 1 has ended, findings: 0\n"));
    end();
}

TEST_F(WatchServiceTest, OtherThreadsHashBesideOneThatHangs) {
    scratch.write("d/b", "other");
    startHungRound(command({"-j2"}));
    ASSERT_TRUE(process->waitForOutput("d/b: CHANGED\n"));
    hung->release();
    EXPECT_EQ("files: 2, findings: 1", roundEnded(1));
    end();
}

TEST_F(WatchServiceTest, OpensARenamedLogAgain) {
    start({"--log", "log"});
    roundEnded(1);
    std::filesystem::rename(scratch.path("log"), scratch.path("older"));
    scratch.write("d/a", "other");
    nextRound(2);
    process->send(SIGHUP);
    yieldUntil([this] { return scratch.exists("log"); });
    scratch.write("d/b", "other");
    nextRound(3);
    end();
    EXPECT_THAT(scratch.read("older"), AllOf(HasSubstr("d/a: CHANGED"), Not(HasSubstr("d/b"))));
    EXPECT_THAT(scratch.read("log"), AllOf(HasSubstr("d/b: CHANGED"), Not(HasSubstr("d/a"))));
}

TEST_F(WatchServiceTest, LogRotates) {
    for (int number = 0; number < 40; ++number) {
        scratch.write("d/new" + std::to_string(number), "x");
    }
    runOnce({"--log", "log", "--max-bytes", "500", "--keep", "2"});
    for (auto const* name : {"log", "log.1", "log.2"}) {
        EXPECT_LE(scratch.read(name).size(), 500u);
        EXPECT_THAT(scratch.read(name), MatchesRegex("20..-.*Z \\[watch\\(\\):.*\n"));
    }
    EXPECT_FALSE(scratch.exists("log.3"));
    EXPECT_THAT(scratch.read("log"), EndsWith("Ended.\n"));
}

TEST_F(WatchServiceTest, LogThatCannotBeWrittenEndsItAtTheStart) {
    Outcome const outcome = runOnce({"--log", "no/log"});
    EXPECT_EQ(1, outcome.exitStatus);
    EXPECT_EQ("ovra-manifest: no/log: cannot be written\n", outcome.err);
}

TEST_F(WatchServiceTest, CrashLeavesTheLastLines) {
    for (int const signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
        scratch.write("d/a", "other");
        start({"--log", "log"});
        roundEnded(1);
        Outcome const outcome = end(signal);
        EXPECT_EQ(signal, outcome.signal);
        EXPECT_THAT(outcome.err, HasSubstr("[watch():ERROR] d/a: CHANGED\n"));
        EXPECT_THAT(scratch.read("log.crash"), HasSubstr("[watch():ERROR] d/a: CHANGED\n"));
        std::filesystem::remove(scratch.path("log.crash"));
    }
}

TEST_F(WatchServiceTest, HashesInTheBackground) {
    startHungRound(command({}));
    EXPECT_EQ(1u, threadsInTheBackground());
    end(SIGKILL);
    startHungRound(command({"--eager"}));
    EXPECT_EQ(0u, threadsInTheBackground());
    end(SIGKILL);
}

TEST_F(WatchServiceTest, FewFilesAreQueuedAtATime) {
    scratch.write("d/0", "other");
    listMany(200);
    scratch.write("manifest", scratch.read("manifest") + ALPHA + "  d/0\n");
    startHungRound(command({"--status", "status"}));
    // The finding is saved as soon as no more files can be queued.
    yieldUntil([this] { return scratch.exists("status"); });
    process->send(SIGUSR1);
    ASSERT_TRUE(process->waitForError("(all workers are reading)"));
    hung->release();
    std::string const answer = end().err;
    std::size_t waiting = 0;
    for (std::size_t at = 0; (at = answer.find(" waiting ", at)) != std::string::npos; ++at) {
        ++waiting;
    }
    EXPECT_GE(waiting, 60u);
    EXPECT_LE(waiting, 64u) << "63 files, and the question";
}

// All in all 8 MiB are allowed, most of which is what the libraries take at the start.
TEST_F(WatchServiceTest, TenThousandFilesTakeLittleMemory) {
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer needs memory of its own for each file";
    }
    start();
    roundEnded(1);
    long const few = mostResident();
    end();
    listMany(10000);
    start();
    EXPECT_EQ("files: 10002, findings: 0", roundEnded(1));
    EXPECT_LT(mostResident() - few, 1500);
    end();
}

// Wherever it fails for want of memory, such as for the stack of a thread, nothing runs on half.
TEST_F(WatchServiceTest, EndsAtTheStartWithoutMemoryForItsThreads) {
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer needs more address space than there is memory";
    }
    Command small = command({"--rounds", "1"});
    int failures = 0;
    for (Outcome outcome; outcome.exitStatus != 0; ++failures) {
        small.memoryBytes += 2 << 20;
        outcome = run(small);
        ASSERT_LT(failures, 1000) << outcome.err;
    }
}

TEST_F(WatchServiceTest, KeepsDescriptorsAndThreadsFlat) {
    start({"--status", "status", "--log", "log"});
    auto const count = [this](char const* what) {
        return std::distance(std::filesystem::directory_iterator(
                                 "/proc/" + std::to_string(process->id()) + '/' + what),
                             {});
    };
    roundEnded(1);
    nextRound(2);
    auto const descriptors = count("fd");
    auto const threads = count("task");
    for (unsigned int number = 3; number < 30; ++number) {
        scratch.write("d/a", std::to_string(number));
        nextRound(number);
        process->send(SIGHUP);
    }
    yieldUntil([&] { return count("fd") == descriptors; });  // A log may be being opened.
    EXPECT_EQ(threads, count("task"));
    end();
}

}  // namespace
