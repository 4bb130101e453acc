// What becomes of an executor's work when the process, or the executor, ends under it. Each case
// is a process of its own: see Application.cpp for the ends and Scene.h for the situations.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/Bounded.h>

namespace ovra::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

#if defined(__SANITIZE_THREAD__)
constexpr bool CHECKS_THREADS = true;
#elif defined(__has_feature)
constexpr bool CHECKS_THREADS = __has_feature(thread_sanitizer);
#else
constexpr bool CHECKS_THREADS = false;
#endif

using Lines = std::vector<std::string>;

struct Ending {
    Lines said;           // On the standard output.
    std::string errors;   // On the standard error stream.
    std::string outcome;  // Such as "exit 0" or "signal 6".
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using TemporaryFile = std::unique_ptr<std::FILE, CloseFile>;

std::string contentOf(TemporaryFile const& file) {
    std::string text;
    std::rewind(file.get());
    for (int c = std::fgetc(file.get()); c != EOF; c = std::fgetc(file.get())) {
        text += static_cast<char>(c);
    }
    return text;
}

std::string outcomeOf(int status) {
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

// A leak checker cannot look at the stacks of threads that a forked child has lost.
class WithoutLeakCheck {
public:
    WithoutLeakCheck() {
        char const* const current = std::getenv("ASAN_OPTIONS");
        before = current != nullptr ? current : "";
        setenv("ASAN_OPTIONS", (before + ":detect_leaks=0").c_str(), 1);
    }
    WithoutLeakCheck(WithoutLeakCheck const&) = delete;
    WithoutLeakCheck& operator=(WithoutLeakCheck const&) = delete;
    ~WithoutLeakCheck() { setenv("ASAN_OPTIONS", before.c_str(), 1); }

private:
    std::string before;
};

// The application bounds its own time: if it hangs, the outcome is its alarm signal.
Ending runHost(std::string const& end, std::string const& situation) {
    TemporaryFile const output(std::tmpfile());
    TemporaryFile const errors(std::tmpfile());
    pid_t const child = fork();
    if (child == 0) {
        dup2(fileno(output.get()), STDOUT_FILENO);
        dup2(fileno(errors.get()), STDERR_FILENO);
        std::string words[] = {LIFECYCLE_APPLICATION, end, situation};
        char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
        execv(arguments[0], arguments);
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);

    Ending ending{{}, contentOf(errors), outcomeOf(status)};
    std::istringstream lines(contentOf(output));
    for (std::string line; std::getline(lines, line);) {
        ending.said.push_back(line);
    }
    return ending;
}

struct Case {
    char const* end;
    char const* situation;
    Lines said;

    friend void PrintTo(Case const& value, std::ostream* out) {
        *out << value.end << " while " << value.situation;
    }
};

std::string nameOf(::testing::TestParamInfo<Case> const& info) {
    std::string name = std::string(info.param.end) + "_while_" + info.param.situation;
    for (char& c : name) {
        c = c == '-' ? '_' : c;
    }
    return name[0] == '_' ? "immediate" + name : name;
}

// --- ends that the process survives, or leaves in order

class OrderlyEndTest : public ::testing::TestWithParam<Case> {};

TEST_P(OrderlyEndTest, HappensSo) {
    std::optional<WithoutLeakCheck> withoutLeakCheck;
    if (std::string(GetParam().end).find("fork-exit") != std::string::npos) {
        if (CHECKS_THREADS) {
            GTEST_SKIP() << "The checker's own join waits for the thread that is not there.";
        }
        withoutLeakCheck.emplace();
    }

    Ending const ending = runHost(GetParam().end, GetParam().situation);

    EXPECT_THAT(ending.said, ElementsAreArray(GetParam().said)) << ending.errors;
    EXPECT_EQ(ending.outcome, "exit 0");
    EXPECT_THAT(ending.errors, IsEmpty());
}

Lines const NOTHING_TO_DO = {"ending", "executor destroyed", "outcome: DONE 2"};
Lines const QUEUED_IS_DROPPED = {"ending",      "queued work dropped", "work ended",
                                 "called back", "executor destroyed",  "outcome: UNSCHEDULED 1"};
Lines const WORK_IS_AWAITED = {"ending", "work ended", "called back", "executor destroyed",
                               "outcome: DONE 2"};
Lines const CALLBACK_IS_AWAITED = {"ending", "callback ended", "executor destroyed",
                                   "outcome: DONE 2"};
Lines const WAITER_IS_RELEASED = {"ending",      "work ended",         "waiter released",
                                  "called back", "executor destroyed", "outcome: DONE 2"};
Lines const WAITER_IS_LEFT = {"ending", "work ended", "called back", "executor destroyed",
                              "outcome: UNSCHEDULED 1, still held"};

INSTANTIATE_TEST_SUITE_P(DestroyedByItsOwner, OrderlyEndTest,
                         ::testing::Values(Case{"destroyed", "idle", NOTHING_TO_DO},
                                           Case{"destroyed", "queued", QUEUED_IS_DROPPED},
                                           Case{"destroyed", "running", WORK_IS_AWAITED},
                                           Case{"destroyed", "callback", CALLBACK_IS_AWAITED},
                                           Case{"destroyed", "waited", WAITER_IS_RELEASED},
                                           Case{"destroyed", "waited-queued", WAITER_IS_LEFT}),
                         nameOf);

INSTANTIATE_TEST_SUITE_P(Exit, OrderlyEndTest,
                         ::testing::Values(Case{"exit", "idle", NOTHING_TO_DO},
                                           Case{"exit", "queued", QUEUED_IS_DROPPED},
                                           Case{"exit", "running", WORK_IS_AWAITED},
                                           Case{"exit", "callback", CALLBACK_IS_AWAITED},
                                           Case{"exit", "waited", WAITER_IS_RELEASED},
                                           Case{"exit", "waited-queued", WAITER_IS_LEFT}),
                         nameOf);

Lines const NOTHING_IS_AWAITED = {"ending"};

INSTANTIATE_TEST_SUITE_P(ImmediateExit, OrderlyEndTest,
                         ::testing::Values(Case{"_exit", "idle", NOTHING_IS_AWAITED},
                                           Case{"_exit", "queued", NOTHING_IS_AWAITED},
                                           Case{"_exit", "running", NOTHING_IS_AWAITED},
                                           Case{"_exit", "callback", NOTHING_IS_AWAITED},
                                           Case{"_exit", "waited", NOTHING_IS_AWAITED},
                                           Case{"_exit", "waited-queued", NOTHING_IS_AWAITED}),
                         nameOf);

// What lies before the end of each of the application's own parts, and then that part's own.
Lines joined(Lines first, Lines const& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Lines const CHILD_QUEUES = {"child: accepted, not idle", "child exited with 7"};
Lines const CHILD_QUEUES_TOO = {"child: accepted, not idle as before", "child exited with 7"};

INSTANTIATE_TEST_SUITE_P(
    ForkAndGoOn, OrderlyEndTest,
    ::testing::Values(
        Case{"fork", "idle",
             joined(CHILD_QUEUES,
                    {"ran in the parent", "ending", "executor destroyed", "outcome: DONE 2"})},
        Case{"fork", "queued",
             joined(CHILD_QUEUES_TOO,
                    {"work ended", "called back", "queued work ran", "queued work called back",
                     "queued work dropped", "ran in the parent", "ending", "executor destroyed",
                     "outcome: DONE 2"})},
        Case{"fork", "running",
             joined(CHILD_QUEUES, {"work ended", "called back", "ran in the parent", "ending",
                                   "executor destroyed", "outcome: DONE 2"})},
        Case{"fork", "callback",
             joined(CHILD_QUEUES, {"callback ended", "ran in the parent", "ending",
                                   "executor destroyed", "outcome: DONE 2"})},
        Case{"fork", "waited",
             joined(CHILD_QUEUES,
                    {"work ended", "waiter released", "called back", "ran in the parent", "ending",
                     "executor destroyed", "outcome: DONE 2"})}),
    nameOf);

Lines afterChild(Lines const& child, Lines const& parent) {
    return joined(joined(child, {"child exited with 7"}), parent);
}

INSTANTIATE_TEST_SUITE_P(
    ForkAndExit, OrderlyEndTest,
    ::testing::Values(
        Case{"fork-exit", "idle",
             afterChild({"executor destroyed", "outcome: DONE 2"}, NOTHING_TO_DO)},
        Case{"fork-exit", "queued",
             afterChild({"queued work dropped", "executor destroyed", "outcome: UNSCHEDULED 1"},
                        QUEUED_IS_DROPPED)},
        Case{"fork-exit", "running",
             afterChild({"executor destroyed", "outcome: EXECUTING 1"}, WORK_IS_AWAITED)},
        Case{"fork-exit", "callback",
             afterChild({"executor destroyed", "outcome: DONE 2"}, CALLBACK_IS_AWAITED)},
        Case{"fork-exit", "waited",
             afterChild({"executor destroyed", "outcome: EXECUTING 1, still held"},
                        WAITER_IS_RELEASED)},
        Case{"fork-exit", "waited-queued",
             afterChild({"executor destroyed", "outcome: UNSCHEDULED 1, still held"},
                        WAITER_IS_LEFT)}),
    nameOf);

Lines const LATE_WORK_RUNS = {"late work ran", "executor destroyed"};

INSTANTIATE_TEST_SUITE_P(
    StaticThatSubmits, OrderlyEndTest,
    ::testing::Values(
        Case{"static-submits", "idle", joined({"ending", "accepted"}, LATE_WORK_RUNS)},
        Case{"static-submits", "running",
             joined({"ending", "accepted", "work ended", "called back"}, LATE_WORK_RUNS)},
        Case{"static-submits", "callback",
             joined({"ending", "accepted", "callback ended"}, LATE_WORK_RUNS)},
        Case{"static-submits", "queued",
             joined({"ending", "accepted", "work ended", "called back", "queued work ran",
                     "queued work called back", "queued work dropped"},
                    LATE_WORK_RUNS)},
        Case{"static-submits", "waited",
             joined({"ending", "accepted", "work ended", "waiter released", "called back"},
                    LATE_WORK_RUNS)}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    StaticThatLooks, OrderlyEndTest,
    ::testing::Values(
        Case{"static-looks-weakly", "idle", joined(NOTHING_TO_DO, {"executor expired"})},
        Case{"static-looks-weakly", "queued", joined(QUEUED_IS_DROPPED, {"executor expired"})},
        Case{"static-looks-weakly", "running", joined(WORK_IS_AWAITED, {"executor expired"})},
        Case{"static-looks-weakly", "callback", joined(CALLBACK_IS_AWAITED, {"executor expired"})},
        Case{"static-looks-weakly", "waited", joined(WAITER_IS_RELEASED, {"executor expired"})}),
    nameOf);

// --- work with a value

INSTANTIATE_TEST_SUITE_P(
    WorkWithAValue, OrderlyEndTest,
    ::testing::Values(
        Case{"async-exit", "queued", {"ending", "executor gone", "future: broken"}},
        Case{"async-exit", "running", {"ending", "work ended", "executor gone", "future: 7"}},
        Case{"async-_exit", "queued", NOTHING_IS_AWAITED},
        Case{"async-_exit", "running", NOTHING_IS_AWAITED},
        Case{"async-quick_exit", "queued", {"ending", "future: pending"}},
        Case{"async-quick_exit", "running", {"ending", "future: pending"}},
        Case{"async-fork",
             "queued",
             {"child: pending", "child: broken after its cancel", "child exited with 7",
              "work ended", "future: 7"}},
        Case{"async-fork",
             "running",
             {"child: pending", "child: pending after its cancel", "child exited with 7",
              "work ended", "future: 7"}},
        Case{"async-fork-exit", "queued",
             afterChild({"executor gone", "future: broken"},
                        {"ending", "executor gone", "future: broken"})},
        Case{"async-fork-exit", "running",
             afterChild({"executor gone", "future: broken"},
                        {"ending", "work ended", "executor gone", "future: 7"})}),
    nameOf);

// --- ends in which the application still logs

class LoggingEndTest : public ::testing::TestWithParam<Case> {};

TEST_P(LoggingEndTest, ReachesTheSinks) {
    bool const isQuick = std::string(GetParam().end) == "quick_exit";

    Ending const ending = runHost(GetParam().end, GetParam().situation);

    EXPECT_THAT(ending.said, ElementsAreArray(GetParam().said));
    EXPECT_EQ(ending.errors, isQuick ? "[app:ERROR] accepted\n" : "[app:ERROR] still here\n");
    EXPECT_EQ(ending.outcome, "exit 0");
}

INSTANTIATE_TEST_SUITE_P(QuickExit, LoggingEndTest,
                         ::testing::Values(Case{"quick_exit", "queued", NOTHING_IS_AWAITED},
                                           Case{"quick_exit", "running", NOTHING_IS_AWAITED},
                                           Case{"quick_exit", "callback", NOTHING_IS_AWAITED},
                                           Case{"quick_exit", "waited", NOTHING_IS_AWAITED},
                                           Case{"quick_exit", "waited-queued", NOTHING_IS_AWAITED}),
                         nameOf);

INSTANTIATE_TEST_SUITE_P(StaticThatLogs, LoggingEndTest,
                         ::testing::Values(Case{"static-logs", "idle", NOTHING_TO_DO},
                                           Case{"static-logs", "queued", QUEUED_IS_DROPPED},
                                           Case{"static-logs", "running", WORK_IS_AWAITED},
                                           Case{"static-logs", "callback", CALLBACK_IS_AWAITED},
                                           Case{"static-logs", "waited", WAITER_IS_RELEASED},
                                           Case{"static-logs", "waited-queued", WAITER_IS_LEFT}),
                         nameOf);

// --- ends that take the process with them

class FatalEndTest : public ::testing::TestWithParam<Case> {};

TEST_P(FatalEndTest, SaysWhyAndTerminates) {
    Ending const ending = runHost(GetParam().end, GetParam().situation);

    EXPECT_THAT(ending.said, ElementsAreArray(GetParam().said));
    EXPECT_EQ(ending.outcome, "signal " + std::to_string(SIGABRT));
    std::string const logged =
        "[~TaskExecutorWorker():ERROR] Worker thread join failed due to 'Resource deadlock "
        "avoided'!\n";
    EXPECT_THAT(ending.errors, HasSubstr(logged));
    EXPECT_THAT(ending.errors.substr(std::min(ending.errors.find(logged), ending.errors.size())),
                AllOf(HasSubstr("[~TaskExecutorWorker():ERROR] The process ends, as the worker's "
                                "thread cannot be joined"),
                      HasSubstr("terminate called without an active exception")));
}

INSTANTIATE_TEST_SUITE_P(ReleasedOnItsOwnWorker, FatalEndTest,
                         ::testing::Values(Case{"own-worker", "queued", NOTHING_IS_AWAITED},
                                           Case{"own-worker", "running", NOTHING_IS_AWAITED},
                                           Case{"own-worker", "callback", NOTHING_IS_AWAITED},
                                           Case{"own-worker", "waited", NOTHING_IS_AWAITED},
                                           Case{"exit-by-worker", "running", NOTHING_IS_AWAITED}),
                         nameOf);

// The other worker is joined, before or after the join of oneself has failed, and so ends its task.
INSTANTIATE_TEST_SUITE_P(
    ReleasedOnOneOfTwoWorkers, FatalEndTest,
    ::testing::Values(Case{"own-worker-of-two", "running", {"ending", "work ended", "called back"}},
                      Case{"own-worker-of-two", "callback", {"ending", "callback ended"}},
                      Case{"own-worker-of-two",
                           "waited",
                           {"ending", "work ended", "waiter released", "called back"}}),
    nameOf);

}  // namespace
}  // namespace ovra::test
