#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <syslog.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include "tests/log/CLibraryProbe.h"
#include "tests/log/LogTestSupport.h"

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using test::AllocationProbe;
using test::CLibraryProbe;
using test::Formatting;
using test::FunctionSink;
using test::Gate;
using test::heapInUse;
using test::LevelKeeper;
using test::levelOf;
using test::RecordingSink;
using test::Registration;
using test::StreamCapture;
using test::TemporaryDirectory;

// --- what holds before main()

LogLevel levelAtStart = levelOf(-1);
bool debuggableAtStart = true;

void readInitialState(int, char**, char**) {
    levelAtStart = getLogLevel();
    debuggableAtStart = getDepsDebuggable();
}

// Run by the dynamic linker before any constructor, those of the shared objects included.
__attribute__((section(".preinit_array"),
               used)) void (*beforeAnyConstructor)(int, char**, char**) = readInitialState;

struct LoggedBeforeMain {
    LoggedBeforeMain() {
        CLibraryProbe probe;
        log(WARNING, "before main", "filtered");
        log(ERROR, "before main", "number %d", 1);
        lines = probe.systemLogLines();
    }

    std::vector<std::string> lines;
};

LoggedBeforeMain const loggedBeforeMain;

TEST(LogTest, GlobalLevelIsErrorBeforeAnyConstructorHasRun) {
    EXPECT_EQ(levelAtStart, ERROR);
}

TEST(LogTest, DepsDebuggableIsFalseFromTheStart) {
    EXPECT_FALSE(debuggableAtStart);
}

TEST(LogTest, WorksBeforeMain) {
    EXPECT_THAT(loggedBeforeMain.lines, ElementsAre("[before main:ERROR] number 1"));
}

// --- levels

TEST(LogTest, LevelsAreSignedNumbersFromTheMostSevereUp) {
    EXPECT_EQ(static_cast<int>(DISABLED), 0);
    EXPECT_EQ(static_cast<int>(CRITICAL), 1);
    EXPECT_EQ(static_cast<int>(ERROR), 2);
    EXPECT_EQ(static_cast<int>(WARNING), 3);
    EXPECT_EQ(static_cast<int>(INFO), 4);
    EXPECT_EQ(static_cast<int>(DEBUG), 5);
    EXPECT_EQ(static_cast<int>(VERBOSE), 6);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<LogLevel>, std::int32_t>));
    EXPECT_EQ(LogLevel::ERROR, ERROR);
}

TEST(LogTest, EveryLevelHasItsName) {
    struct Row {
        long long level;
        char const* name;
    };
    Row const rows[] = {{0, "DISABLED"}, {1, "CRITICAL"},      {2, "ERROR"},
                        {3, "WARNING"},  {4, "INFO"},          {5, "DEBUG"},
                        {6, "VERBOSE"},  {7, "UNKNOWN"},       {8, "UNKNOWN"},
                        {-1, "UNKNOWN"}, {INT_MAX, "UNKNOWN"}, {INT_MIN, "UNKNOWN"}};
    for (Row const& row : rows) {
        EXPECT_STREQ(logLevelToName(levelOf(row.level)), row.name) << "level " << row.level;
        EXPECT_EQ(logLevelToName(levelOf(row.level)), logLevelToName(levelOf(row.level)))
            << "a new string for level " << row.level;
    }
}

TEST(LogTest, AnyGlobalLevelCanBeSetAndReadBack) {
    LevelKeeper const levelKeeper;
    for (long long const level : {0, 1, 2, 3, 4, 5, 6, 7, -1, INT_MAX, INT_MIN}) {
        setLogLevel(levelOf(level));
        EXPECT_EQ(getLogLevel(), levelOf(level));
    }
}

TEST(LogTest, DepsDebuggableIsKeptAndHasNoEffect) {
    CLibraryProbe probe;
    setDepsDebuggable(true);
    EXPECT_TRUE(getDepsDebuggable());
    EXPECT_EQ(getLogLevel(), ERROR);
    log(WARNING, "tag", "filtered");
    log(ERROR, "tag", "delivered");
    setDepsDebuggable(false);
    EXPECT_FALSE(getDepsDebuggable());
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] delivered"));
}

TEST(LogTest, DeliversWhatTheGlobalLevelLetsThrough) {
    struct Row {
        long long globalLevel;
        long long level;
        bool isDelivered;
    };
    Row const rows[] = {
        // Off: nothing, whatever the message.
        {0, 0, false},
        {0, 1, false},
        {0, 2, false},
        {0, 6, false},
        {0, 7, false},
        {0, -1, false},
        {0, INT_MIN, false},
        {0, INT_MAX, false},
        // Each level lets itself and what is more severe through.
        {1, 1, true},
        {1, 2, false},
        {2, 1, true},
        {2, 2, true},
        {2, 3, false},
        {3, 3, true},
        {3, 4, false},
        {4, 4, true},
        {4, 5, false},
        {5, 5, true},
        {5, 6, false},
        {6, 6, true},
        {6, 1, true},
        // A message of level 0 or below, as long as logging is on at all.
        {1, 0, true},
        {2, 0, true},
        {1, -1, true},
        {1, INT_MIN, true},
        {6, -7, true},
        // One above the last level, if the global level is as high.
        {6, 7, false},
        {7, 7, true},
        {7, 8, false},
        {INT_MAX, INT_MAX, true},
        {INT_MAX - 1, INT_MAX, false},
        {6, INT_MAX, false},
        // A negative global level is on, and compared as a signed number.
        {-1, 0, false},
        {-1, 1, false},
        {-1, 6, false},
        {-1, -1, true},
        {-1, -2, true},
        {-2, -1, false},
        {INT_MIN, INT_MIN, true},
        {INT_MIN, INT_MIN + 1, false},
        {INT_MIN, INT_MAX, false},
        {INT_MAX, INT_MIN, true},
    };
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    std::size_t delivered = 0;
    for (Row const& row : rows) {
        CLibraryProbe probe;
        LevelKeeper const levelKeeper(levelOf(row.globalLevel));
        log(levelOf(row.level), "tag", "text");
        delivered += row.isDelivered ? 1 : 0;
        EXPECT_EQ(probe.systemLogCalls.size(), row.isDelivered ? 1u : 0u)
            << "level " << row.level << " at the global level " << row.globalLevel;
        EXPECT_EQ(sink->lines().size(), delivered)
            << "level " << row.level << " at the global level " << row.globalLevel;
    }
}

// --- the line

TEST(LogTest, LineHoldsTagLevelAndMessage) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    CLibraryProbe probe;
    {
        LevelKeeper const levelKeeper(INFO);
        log(INFO, "SubmittedTask::execute()", "Moving current task '%s' into %s state.", "sync",
            "READY");
    }
    log(INFO, "SubmittedTask::execute()", "Moving current task '%s' into %s state.", "sync",
        "READY");
    char const line[] =
        "[SubmittedTask::execute():INFO] Moving current task 'sync' into READY state.";
    EXPECT_THAT(sink->texts(), ElementsAre(line));
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(line));
}

TEST(LogTest, LineNamesTheLevelOfTheMessage) {
    struct Row {
        long long level;
        char const* line;
    };
    Row const rows[] = {
        {0, "[tag:DISABLED] text"}, {1, "[tag:CRITICAL] text"}, {2, "[tag:ERROR] text"},
        {3, "[tag:WARNING] text"},  {4, "[tag:INFO] text"},     {5, "[tag:DEBUG] text"},
        {6, "[tag:VERBOSE] text"},  {7, "[tag:UNKNOWN] text"},  {-1, "[tag:UNKNOWN] text"}};
    LevelKeeper const levelKeeper(levelOf(7));
    for (Row const& row : rows) {
        CLibraryProbe probe;
        log(levelOf(row.level), "tag", "text");
        EXPECT_THAT(probe.systemLogLines(), ElementsAre(row.line));
    }
}

TEST(LogTest, EmptyMessageMakesALineThatEndsWithTheBlank) {
    CLibraryProbe probe;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
    log(ERROR, "tag", "");
#pragma GCC diagnostic pop
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] "));
}

TEST(LogTest, EmptyTagIsKept) {
    CLibraryProbe probe;
    log(ERROR, "", "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[:ERROR] text"));
}

TEST(LogTest, NullTagIsPrintable) {
    CLibraryProbe probe;
    log(ERROR, nullptr, "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[(null):ERROR] text"));
}

TEST(LogTest, NewlineAtTheEndOfAMessageStaysInTheLine) {
    CLibraryProbe probe;
    log(ERROR, "tag", "failed due to '%s'!\n", "reason");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] failed due to 'reason'!\n"));
}

TEST(LogTest, PercentSignsOfTagAndMessageAreNotInterpretedAgain) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    // "%m" takes no argument: harmless where the system log interprets the line.
    log(ERROR, "%m", "%%m and %s", "%m");
    EXPECT_THAT(sink->texts(), ElementsAre("[%m:ERROR] %m and %m"));
}

TEST(LogTest, LongLinesArriveWhole) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    CLibraryProbe probe;
    std::string const tag(70000, 't');
    std::string const message(300000, 'm');
    log(ERROR, tag.c_str(), "%s", message.c_str());
    EXPECT_THAT(sink->texts(), ElementsAre("[" + tag + ":ERROR] " + message));
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[" + tag + ":ERROR] " + message));
}

TEST(LogTest, ArgumentsOfEveryKindAreFormatted) {
    CLibraryProbe probe;
    log(ERROR, "tag", "%d %u %lld %s %c %5.2f %x %*d|%-4s|", -1, 2u, 3000000000LL, "four", '5',
        6.25, 7u, 4, 8, "9");
    EXPECT_THAT(probe.systemLogLines(),
                ElementsAre("[tag:ERROR] -1 2 3000000000 four 5  6.25 7    8|9   |"));
}

// --- formatting

TEST(LogTest, FilteredMessageIsNotFormatted) {
    CLibraryProbe probe;
    AllocationProbe const allocationProbe;
    std::size_t const before = heapInUse();
    log(WARNING, "tag", "%s", "text");
    EXPECT_EQ(heapInUse(), before);
    EXPECT_EQ(allocationProbe.allocations, 0);
    EXPECT_EQ(probe.vasprintfCalls, 0);
    EXPECT_EQ(probe.asprintfCalls, 0);
}

TEST(LogTest, DeliveredMessageIsFormattedOnceWhateverTheNumberOfSinks) {
    Registration const first(std::make_shared<RecordingSink>());
    Registration const second(std::make_shared<RecordingSink>());
    CLibraryProbe probe;
    log(ERROR, "tag", "%s", "text");
    EXPECT_EQ(probe.vasprintfCalls, 1);
    EXPECT_EQ(probe.asprintfCalls, 1);
}

TEST(LogTest, MessageThatCannotBeFormattedIsDropped) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    for (Formatting const outcome : {Formatting::FAILS, Formatting::LEAVES_NULL}) {
        CLibraryProbe probe;
        probe.vasprintfOutcome = outcome;
        log(ERROR, "tag", "%s", "text");
        EXPECT_EQ(probe.vasprintfCalls, 1);
        EXPECT_EQ(probe.asprintfCalls, 0);
        EXPECT_THAT(probe.systemLogCalls, IsEmpty());
        EXPECT_THAT(sink->lines(), IsEmpty());
    }
}

TEST(LogTest, FormatThatTheCLibraryRefusesProducesNoOutput) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    CLibraryProbe probe;
    // Has no representation in the "C" locale.
    wchar_t const unconvertible[] = {0x20ac, 0};
    log(ERROR, "tag", "%ls", unconvertible);
    EXPECT_EQ(probe.vasprintfCalls, 1);
    EXPECT_EQ(probe.asprintfCalls, 0);
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
    EXPECT_THAT(sink->lines(), IsEmpty());
}

TEST(LogTest, LineThatCannotBeBuiltIsDropped) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    for (Formatting const outcome : {Formatting::FAILS, Formatting::LEAVES_NULL}) {
        CLibraryProbe probe;
        probe.asprintfOutcome = outcome;
        log(ERROR, "tag", "%s", "text");
        EXPECT_EQ(probe.vasprintfCalls, 1);
        EXPECT_EQ(probe.asprintfCalls, 1);
        EXPECT_THAT(probe.systemLogCalls, IsEmpty());
        EXPECT_THAT(sink->lines(), IsEmpty());
    }
}

// --- the heap

// Large enough to tell one that is kept from whatever else changes.
std::string const& largeText() {
    static std::string const text(1 << 20, 'x');
    return text;
}

void logLargeText() {
    log(ERROR, "tag", "%s", largeText().c_str());
}

// What `work`, done again and again, adds to the heap, in large texts.
template <typename Work>
double largeTextsKeptBy(Work const& work) {
    work();  // What is allocated once and for all.
    std::size_t const before = heapInUse();
    for (int i = 0; i < 8; ++i) {
        work();
    }
    return (static_cast<double>(heapInUse()) - static_cast<double>(before)) /
           static_cast<double>(largeText().size());
}

TEST(LogTest, MessageIsFreedBeforeTheSinksAreCalled) {
    largeText();
    std::size_t meanwhile = 0;
    Registration const registration(
        std::make_shared<FunctionSink>([&](char const*, LogLevel) { meanwhile = heapInUse(); }));
    std::size_t const before = heapInUse();
    logLargeText();
    ASSERT_GT(meanwhile, before);
    double const held = static_cast<double>(meanwhile - before);
    EXPECT_GE(held, static_cast<double>(largeText().size()));
    EXPECT_LT(held, 1.5 * static_cast<double>(largeText().size()));
}

TEST(LogTest, DeliveredLineIsFreed) {
    EXPECT_LT(largeTextsKeptBy(logLargeText), 0.5);
}

TEST(LogTest, LineIsFreedWhenASinkThrows) {
    Registration const registration(std::make_shared<FunctionSink>(
        [](char const*, LogLevel) { throw std::runtime_error("no"); }));
    EXPECT_LT(largeTextsKeptBy(logLargeText), 0.5);
}

TEST(LogTest, NothingIsKeptOfAMessageThatCannotBeFormatted) {
    EXPECT_LT(largeTextsKeptBy([] {
                  wchar_t const unconvertible[] = {0x20ac, 0};
                  log(ERROR, "tag", "%s%ls", largeText().c_str(), unconvertible);
              }),
              0.5);
}

TEST(LogTest, NothingIsKeptOfALineThatCannotBeBuilt) {
    for (Formatting const outcome : {Formatting::FAILS, Formatting::LEAVES_NULL}) {
        CLibraryProbe probe;
        probe.asprintfOutcome = outcome;
        EXPECT_LT(largeTextsKeptBy(logLargeText), 0.5);
    }
}

// --- the sinks

TEST(LogTest, PlatformSinkNeedsNoRegistrationAndIsCalledOnce) {
    CLibraryProbe probe;
    log(ERROR, "tag", "text");
    ASSERT_EQ(probe.systemLogCalls.size(), 1u);
    EXPECT_EQ(probe.systemLogCalls[0].priority, LOG_ERR);
    EXPECT_EQ(probe.systemLogCalls[0].text, "[tag:ERROR] text");
}

TEST(LogTest, PlatformSinkIsCalledBeforeTheRegisteredSinks) {
    std::vector<std::string> calls;
    auto const recordCall = [&](char const*, LogLevel) { calls.push_back("registered"); };
    Registration const first(std::make_shared<FunctionSink>(recordCall));
    Registration const second(std::make_shared<FunctionSink>(recordCall));
    CLibraryProbe probe;
    probe.onSystemLog = [&] { calls.push_back("platform"); };
    log(ERROR, "tag", "text");
    log(ERROR, "tag", "text");
    EXPECT_THAT(calls, ElementsAre("platform", "registered", "registered", "platform", "registered",
                                   "registered"));
}

TEST(LogTest, AllSinksShareOneLine) {
    auto const first = std::make_shared<RecordingSink>();
    auto const second = std::make_shared<RecordingSink>();
    Registration const firstRegistration(first);
    Registration const secondRegistration(second);
    CLibraryProbe probe;
    log(ERROR, "tag", "text");
    ASSERT_EQ(first->lines().size(), 1u);
    ASSERT_EQ(second->lines().size(), 1u);
    ASSERT_EQ(probe.systemLogCalls.size(), 1u);
    EXPECT_EQ(first->lines()[0].address, second->lines()[0].address);
    EXPECT_EQ(first->lines()[0].address, probe.systemLogCalls[0].format);
}

TEST(LogTest, LevelReachesTheSinksUnchanged) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    LevelKeeper const levelKeeper(levelOf(INT_MAX));
    std::vector<LogLevel> sent;
    for (long long const level : {-1, 0, 1, 2, 3, 4, 5, 6, 7, INT_MAX, INT_MIN}) {
        sent.push_back(levelOf(level));
        log(sent.back(), "tag", "text");
    }
    std::vector<LogLevel> received;
    for (RecordingSink::Line const& line : sink->lines()) {
        received.push_back(line.level);
    }
    EXPECT_EQ(received, sent);
}

// In a process of its own, whose registry holds nothing else.
[[noreturn]] void compareOrderOfCallsWithThatOfAMap() {
    std::unordered_map<std::string, int> map(10);
    std::vector<std::string> called;
    for (int i = 0; i < 40; ++i) {
        std::string const name = "sink number " + std::to_string(i);
        map[name] = i;
        addLogHandler(std::make_shared<FunctionSink>(
                          [&called, name](char const*, LogLevel) { called.push_back(name); }),
                      name.c_str());

        called.clear();
        log(ERROR, "tag", "text");
        std::vector<std::string> expected;
        for (auto const& entry : map) {
            expected.push_back(entry.first);
        }
        if (called != expected) {
            std::cerr << "another order with " << map.size() << " sinks" << std::endl;
            std::exit(1);
        }
    }
    std::exit(0);
}

TEST(LogTest, SinksAreCalledInTheOrderOfTheRegistrysMap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(compareOrderOfCallsWithThatOfAMap(), ::testing::ExitedWithCode(0), "");
}

// --- sinks that throw

TEST(LogTest, ThrowingSinkMakesTheRestMissThatMessageOnly) {
    std::vector<int> called;
    int thrower = -1;
    auto const sink = [&](int number) {
        return std::make_shared<FunctionSink>([&, number](char const*, LogLevel) {
            called.push_back(number);
            if (number == thrower) {
                throw number;
            }
        });
    };
    Registration const first(sink(1));
    Registration const second(sink(2));
    Registration const third(sink(3));

    CLibraryProbe probe;
    log(ERROR, "tag", "all");
    ASSERT_EQ(called.size(), 3u);
    std::vector<int> const order = called;

    for (std::size_t position = 0; position < order.size(); ++position) {
        thrower = order[position];
        called.clear();
        log(ERROR, "tag", "some");
        EXPECT_EQ(called,
                  std::vector<int>(order.begin(),
                                   order.begin() + 1 + static_cast<std::ptrdiff_t>(position)));

        thrower = -1;
        called.clear();
        log(ERROR, "tag", "all");
        EXPECT_EQ(called, order);
    }
    EXPECT_EQ(probe.systemLogCalls.size(), 7u);
}

TEST(LogTest, WhateverASinkThrowsIsDiscarded) {
    struct NoException {};
    std::function<void()> thrower;
    Registration const registration(
        std::make_shared<FunctionSink>([&](char const*, LogLevel) { thrower(); }));
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    thrower = [] { throw std::runtime_error("no"); };
    EXPECT_NO_THROW(log(ERROR, "tag", "text"));
    thrower = [] { throw std::bad_alloc(); };
    EXPECT_NO_THROW(log(ERROR, "tag", "text"));
    thrower = [] { throw NoException(); };
    EXPECT_NO_THROW(log(ERROR, "tag", "text"));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(LogTest, PlatformSinkThatCannotLockMakesAllMissThatMessage) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    CLibraryProbe probe;
    probe.onLock = [](void const*) { return EINVAL; };
    EXPECT_NO_THROW(log(ERROR, "tag", "lost"));
    probe.onLock = nullptr;
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
    EXPECT_THAT(sink->lines(), IsEmpty());

    log(ERROR, "tag", "next");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] next"));
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] next"));
}

TEST(LogTest, RegisteredSinkThatCannotLockIsSwallowedToo) {
    StreamCapture errors(std::cerr);
    Registration const registration(STANDARD_STREAM_HANDLER);
    CLibraryProbe probe;
    int locks = 0;
    probe.onLock = [&](void const*) { return ++locks == 2 ? EAGAIN : 0; };
    EXPECT_NO_THROW(log(ERROR, "tag", "lost"));
    EXPECT_EQ(locks, 2);
    log(ERROR, "tag", "next");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] lost", "[tag:ERROR] next"));
    EXPECT_EQ(errors.text, "[tag:ERROR] next\n<flush>");
}

TEST(LogTest, SinkMayLogItself) {
    bool again = true;
    std::vector<std::string> lines;
    Registration const registration(std::make_shared<FunctionSink>([&](char const* line, LogLevel) {
        lines.emplace_back(line);
        if (std::exchange(again, false)) {
            log(CRITICAL, "sink", "inner");
        }
    }));
    CLibraryProbe probe;
    log(ERROR, "tag", "outer");
    EXPECT_THAT(lines, ElementsAre("[tag:ERROR] outer", "[sink:CRITICAL] inner"));
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] outer", "[sink:CRITICAL] inner"));
}

// --- errno

TEST(LogTest, ErrnoIsKept) {
    bool throws = false;
    Registration const registration(std::make_shared<FunctionSink>([&](char const*, LogLevel) {
        errno = EIO;
        if (throws) {
            throw 1;
        }
    }));
    CLibraryProbe probe;
    probe.onSystemLog = [] { errno = ENOSPC; };

    errno = ENOTDIR;
    log(WARNING, "tag", "filtered");
    EXPECT_EQ(errno, ENOTDIR);

    errno = ENOTDIR;
    log(ERROR, "tag", "delivered");
    EXPECT_EQ(errno, ENOTDIR);

    errno = 0;
    log(ERROR, "tag", "delivered");
    EXPECT_EQ(errno, 0);

    throws = true;
    errno = ENOTDIR;
    log(ERROR, "tag", "thrown out of");
    EXPECT_EQ(errno, ENOTDIR);

    errno = ENOTDIR;
    wchar_t const unconvertible[] = {0x20ac, 0};
    log(ERROR, "tag", "%ls", unconvertible);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(LogTest, FormatMayNameTheErrorOfTheCaller) {
    CLibraryProbe probe;
    errno = ENOTDIR;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    log(ERROR, "tag", "%m");
#pragma GCC diagnostic pop
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_THAT(probe.systemLogLines(),
                ElementsAre(std::string("[tag:ERROR] ") + strerror(ENOTDIR)));
}

// --- threads

TEST(LogTest, TakesNoLockOfItsOwn) {
    CLibraryProbe probe;
    std::vector<void const*> locked;
    probe.onLock = [&](void const* mutex) {
        locked.push_back(mutex);
        return 0;
    };
    log(ERROR, "tag", "text");
    EXPECT_EQ(locked.size(), 1u) << "besides that of the platform sink";
}

TEST(LogTest, OneThreadsSlowSinkDoesNotHoldUpAnother) {
    Gate entered;
    Gate release;
    auto const slowThread = std::make_shared<std::thread::id>();
    Registration const registration(std::make_shared<FunctionSink>([&](char const*, LogLevel) {
        if (std::this_thread::get_id() == *slowThread) {
            entered.open();
            EXPECT_TRUE(release.wait());
        }
    }));
    Gate start;
    std::thread slow([&] {
        EXPECT_TRUE(start.wait());
        log(ERROR, "slow", "text");
    });
    *slowThread = slow.get_id();
    start.open();
    EXPECT_TRUE(entered.wait());

    // Stays here for good if it has to wait for the other.
    CLibraryProbe probe;
    log(ERROR, "quick", "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[quick:ERROR] text"));

    release.open();
    slow.join();
}

constexpr int THREADS = 8;
constexpr int LINES_PER_THREAD = 100;

std::string lineOf(int thread, int number, LogLevel level) {
    return "[thread " + std::to_string(thread) + ":" + logLevelToName(level) + "] line " +
           std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(100 + thread), static_cast<char>('a' + thread));
}

// Each thread's lines are there, whole and in the order in which it logged them.
void expectLinesOfAllThreads(std::vector<std::string> const& lines, LogLevel level) {
    std::vector<int> next(THREADS, 0);
    for (std::string const& line : lines) {
        bool isWhole = false;
        for (int thread = 0; thread < THREADS; ++thread) {
            int& number = next[static_cast<std::size_t>(thread)];
            if (line == lineOf(thread, number, level)) {
                ++number;
                isWhole = true;
                break;
            }
        }
        EXPECT_TRUE(isWhole) << "out of order, or not whole: " << line;
    }
    EXPECT_THAT(next, ::testing::Each(LINES_PER_THREAD));
}

TEST(LogTest, ThreadsLogAtOnceThroughEverySink) {
    TemporaryDirectory const directory;
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    auto const sink = std::make_shared<RecordingSink>();
    Registration const own(sink);
    Registration const platform(PLATFORM_HANDLER);
    Registration const streams(STANDARD_STREAM_HANDLER);
    std::string const path = directory.path("log");
    Registration const file(path);
    addLogHandler(FILE_HANDLER, file.name());
    LevelKeeper const levelKeeper(INFO);

    for (LogLevel const level : {ERROR, INFO}) {
        Gate start;
        std::vector<std::vector<std::string>> systemLogLines(THREADS);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([&, thread] {
                CLibraryProbe probe;
                std::string const tag = "thread " + std::to_string(thread);
                std::string const filling(static_cast<std::size_t>(100 + thread),
                                          static_cast<char>('a' + thread));
                EXPECT_TRUE(start.wait());
                for (int number = 0; number < LINES_PER_THREAD; ++number) {
                    log(level, tag.c_str(), "line %d %s", number, filling.c_str());
                }
                systemLogLines[static_cast<std::size_t>(thread)] = probe.systemLogLines();
            });
        }
        start.open();
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (int thread = 0; thread < THREADS; ++thread) {
            auto const& lines = systemLogLines[static_cast<std::size_t>(thread)];
            ASSERT_EQ(lines.size(), 2u * LINES_PER_THREAD);
            for (std::size_t i = 0; i < lines.size(); ++i) {
                EXPECT_EQ(lines[i], lineOf(thread, static_cast<int>(i / 2), level));
            }
        }
    }

    auto const select = [](std::vector<std::string> const& lines, LogLevel level) {
        std::vector<std::string> selected;
        for (std::string const& line : lines) {
            if (line.find(std::string(":") + logLevelToName(level) + "]") != std::string::npos) {
                selected.push_back(line);
            }
        }
        return selected;
    };
    auto const withoutFlushes = [](std::string const& text) {
        std::vector<std::string> lines = test::linesOf(text);
        for (std::string& line : lines) {
            std::string const flush = "<flush>";
            if (line.compare(0, flush.size(), flush) == 0) {
                line.erase(0, flush.size());
            }
        }
        EXPECT_EQ(lines.back(), "") << "the last line was not flushed";
        lines.pop_back();
        return lines;
    };
    std::vector<std::string> const fileLines = test::linesOf(test::contentOf(path));
    EXPECT_EQ(fileLines.size(), 2u * THREADS * LINES_PER_THREAD);
    for (LogLevel const level : {ERROR, INFO}) {
        expectLinesOfAllThreads(select(fileLines, level), level);
        expectLinesOfAllThreads(select(sink->texts(), level), level);
    }
    expectLinesOfAllThreads(withoutFlushes(errors.text), ERROR);
    expectLinesOfAllThreads(withoutFlushes(output.text), INFO);
}

TEST(LogTest, LevelMayChangeWhileOthersLog) {
    LevelKeeper const levelKeeper;
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    Gate start;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            EXPECT_TRUE(start.wait());
            for (int number = 0; number < LINES_PER_THREAD; ++number) {
                log(CRITICAL, "always", "%d", number);
                log(VERBOSE, "at times", "%d", number);
                log(levelOf(7), "never", "%d", number);
            }
        });
    }
    threads.emplace_back([&] {
        EXPECT_TRUE(start.wait());
        for (int number = 0; number < LINES_PER_THREAD; ++number) {
            setLogLevel(number % 2 == 0 ? CRITICAL : VERBOSE);
            setDepsDebuggable(number % 2 == 0);
            EXPECT_EQ(getDepsDebuggable(), number % 2 == 0);
        }
    });
    start.open();
    for (std::thread& thread : threads) {
        thread.join();
    }
    setDepsDebuggable(false);
    EXPECT_EQ(getLogLevel(), VERBOSE);

    int always = 0;
    int atTimes = 0;
    int never = 0;
    for (std::string const& text : sink->texts()) {
        always += text.find("[always:CRITICAL]") == 0 ? 1 : 0;
        atTimes += text.find("[at times:VERBOSE]") == 0 ? 1 : 0;
        never += text.find("[never:") == 0 ? 1 : 0;
    }
    EXPECT_EQ(always, 4 * LINES_PER_THREAD);
    EXPECT_LE(atTimes, 4 * LINES_PER_THREAD);
    EXPECT_EQ(never, 0);
}

// --- threads that end inside a sink

struct EndingThread {
    std::function<void()> work;
    bool wasUnwound = false;
    bool wentOn = false;

    // What the thread ended with.
    void* run() {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, &EndingThread::start, this) != 0) {
            ADD_FAILURE() << "no thread";
            return nullptr;
        }
        void* value = nullptr;
        EXPECT_EQ(pthread_join(thread, &value), 0);
        return value;
    }

private:
    static void* start(void* self) {
        auto* const thread = static_cast<EndingThread*>(self);
        std::shared_ptr<void> const unwound(nullptr,
                                            [thread](void*) { thread->wasUnwound = true; });
        thread->work();
        thread->wentOn = true;
        return nullptr;
    }
};

int const exitValue = 0;

[[noreturn]] void exitThread() {
    pthread_exit(const_cast<int*>(&exitValue));
}

void cancelThread() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

TEST(LogTest, ThreadMayExitInsideASink) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { exitThread(); }));
    EndingThread thread;
    thread.work = [] { log(ERROR, "tag", "text"); };
    EXPECT_EQ(thread.run(), &exitValue);
    EXPECT_TRUE(thread.wasUnwound);
    EXPECT_FALSE(thread.wentOn);
}

TEST(LogTest, ThreadMayBeCancelledInsideASink) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { cancelThread(); }));
    EndingThread thread;
    thread.work = [] { log(ERROR, "tag", "text"); };
    EXPECT_EQ(thread.run(), PTHREAD_CANCELED);
    EXPECT_TRUE(thread.wasUnwound);
    EXPECT_FALSE(thread.wentOn);
}

TEST(LogTest, ThreadThatEndsInsideASinkLeavesNothingBehind) {
    for (auto const& end :
         {std::function<void()>(exitThread), std::function<void()>(cancelThread)}) {
        Registration const registration(
            std::make_shared<FunctionSink>([&](char const*, LogLevel) { end(); }));
        EXPECT_LT(largeTextsKeptBy([] {
                      EndingThread thread;
                      thread.work = logLargeText;
                      thread.run();
                      EXPECT_FALSE(thread.wentOn);
                  }),
                  0.5);
    }
}

TEST(LogTest, ThreadThatEndsInTheSystemLogReleasesThePlatformSink) {
    EndingThread thread;
    thread.work = [] {
        CLibraryProbe probe;
        probe.onSystemLog = cancelThread;
        log(ERROR, "tag", "text");
    };
    EXPECT_EQ(thread.run(), PTHREAD_CANCELED);
    EXPECT_TRUE(thread.wasUnwound);

    CLibraryProbe probe;
    probe.onLock = [](void const* mutex) {
        auto* const native = static_cast<pthread_mutex_t*>(const_cast<void*>(mutex));
        int const failure = pthread_mutex_trylock(native);
        if (failure == 0) {
            pthread_mutex_unlock(native);
        }
        return failure;
    };
    log(ERROR, "tag", "text");
    EXPECT_EQ(probe.systemLogCalls.size(), 1u) << "the mutex is still locked";
}

}  // namespace

}  // namespace ovra::log
