#include <ovra/log/Log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using namespace ovra::test;
using namespace test;

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

// After the constructors of the library.
bool const debuggableBeforeMain = getDepsDebuggable();

TEST(LogTest, GlobalLevelIsErrorBeforeAnyConstructorHasRun) {
    EXPECT_EQ(levelAtStart, ERROR);
}

TEST(LogTest, DepsDebuggableIsFalseFromTheStart) {
    EXPECT_FALSE(debuggableAtStart);
    EXPECT_FALSE(debuggableBeforeMain);
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

}  // namespace

}  // namespace ovra::log
