#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <syslog.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using namespace ovra::test;
using namespace test;

// What a line with "%%" in it shows as: the system log leaves one sign of it, text keeps both.
char const* const AS_FORMAT = "[tag:ERROR] 100% full";
char const* const AS_TEXT = "[tag:ERROR] 100%% full";
char const* const PERCENT = "100%% full";

TEST(LogVerbatimTest, LineIsTextToTheSystemLog) {
    CLibraryProbe probe;
    logVerbatim(ERROR, "%s%n", "%s", "100% %s%n%m %");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[%s%n:ERROR] 100% %s%n%m %"));
    EXPECT_EQ(probe.systemLogCalls[0].priority, LOG_ERR);
}

TEST(LogVerbatimTest, PercentSignsOfTheFormatAreDoubledOnceAsForPrintf) {
    CLibraryProbe probe;
    logVerbatim(ERROR, "tag", "%d%%", 100);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] 100%"));
}

TEST(LogVerbatimTest, EverySinkGetsTheLineThatLogWouldMake) {
    LevelKeeper const levelKeeper;
    for (int threshold = -1; threshold <= 7; ++threshold) {
        for (int level = -1; level <= 8; ++level) {
            auto const sink = std::make_shared<RecordingSink>();
            Registration const registration(sink);
            setLogLevel(levelOf(threshold));
            CLibraryProbe probe;
            log(levelOf(level), nullptr, "%d%s", level, "text");
            logVerbatim(levelOf(level), nullptr, "%d%s", level, "text");
            auto const lines = sink->lines();
            bool const isDelivered = threshold != 0 && threshold >= level;
            ASSERT_EQ(lines.size(), isDelivered ? 2u : 0u) << level << " under " << threshold;
            ASSERT_EQ(probe.systemLogCalls.size(), lines.size());
            if (isDelivered) {
                EXPECT_EQ(lines[0].text, lines[1].text);
                EXPECT_EQ(lines[1].level, levelOf(level));
                EXPECT_EQ(probe.systemLogCalls[0].text, probe.systemLogCalls[1].text);
                EXPECT_EQ(probe.systemLogCalls[0].priority, probe.systemLogCalls[1].priority);
            }
        }
    }
}

TEST(LogVerbatimTest, NeedsNoMoreThanLog) {
    AllocationProbe allocations;
    CLibraryProbe probe;
    logVerbatim(WARNING, "tag", "filtered");
    EXPECT_EQ(probe.vasprintfCalls, 0);
    logVerbatim(ERROR, "tag", "text");
    EXPECT_EQ(probe.vasprintfCalls, 1);
    EXPECT_EQ(probe.asprintfCalls, 1);
    // What the probe keeps of the line is on the heap, and nothing else.
    int const withVerbatim = allocations.allocations;
    log(ERROR, "tag", "text");
    EXPECT_EQ(allocations.allocations - withVerbatim, withVerbatim);
}

TEST(LogVerbatimTest, MessageThatCannotBeFormattedIsDropped) {
    CLibraryProbe probe;
    probe.vasprintfOutcome = Formatting::FAILS;
    logVerbatim(ERROR, "tag", "text");
    probe.vasprintfOutcome = Formatting::REAL;
    probe.asprintfOutcome = Formatting::LEAVES_NULL;
    logVerbatim(ERROR, "tag", "text");
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
}

TEST(LogVerbatimTest, ErrnoIsKept) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { errno = ENOENT; }));
    CLibraryProbe probe;
    probe.onSystemLog = [] { errno = EIO; };
    errno = ENOTDIR;
    logVerbatim(ERROR, "tag", "text");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(probe.systemLogCalls.size(), 1u);
}

// --- which writes to the system log the rule covers

class DerivedPlatformSink : public PlatformLogHandler {
public:
    void handleLogMessage(char const* line, LogLevel level) override {
        PlatformLogHandler::handleLogMessage(line, level);
    }
};

TEST(LogVerbatimTest, HoldsForEverySinkToTheSystemLog) {
    PlatformLogHandler behindAnother;
    std::mutex mutex;
    Registration const plain(PLATFORM_HANDLER);
    Registration const derived(std::make_shared<DerivedPlatformSink>());
    Registration const forwarding(
        std::make_shared<FunctionSink>([&](char const* line, LogLevel level) {
            behindAnother.handleLogMessage(line, level);
            handleLogMessageEInkOrLinux(line, level, mutex);
        }));
    CLibraryProbe probe;
    logVerbatim(ERROR, "tag", "%s", PERCENT);
    EXPECT_EQ(probe.systemLogLines(), std::vector<std::string>(5, AS_TEXT));
    probe.systemLogCalls.clear();
    log(ERROR, "tag", "%s", PERCENT);
    EXPECT_EQ(probe.systemLogLines(), std::vector<std::string>(5, AS_FORMAT));
}

TEST(LogVerbatimTest, LogInsideASinkKeepsItsOwnRule) {
    PlatformLogHandler platform;
    int depth = 0;
    Registration const registration(
        std::make_shared<FunctionSink>([&](char const* line, LogLevel level) {
            if (++depth == 1) {
                log(ERROR, "tag", "%s", PERCENT);
            } else if (depth == 2) {
                logVerbatim(ERROR, "tag", "%s", PERCENT);
            }
            platform.handleLogMessage(line, level);
        }));
    {
        CLibraryProbe probe;
        logVerbatim(ERROR, "tag", "%s", PERCENT);
        EXPECT_THAT(probe.systemLogLines(),
                    ElementsAre(AS_TEXT, AS_FORMAT, AS_TEXT, AS_TEXT, AS_FORMAT, AS_TEXT));
    }
    CLibraryProbe probe;
    depth = 1;  // `log`, and inside it `logVerbatim`.
    log(ERROR, "tag", "%s", PERCENT);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(AS_FORMAT, AS_TEXT, AS_TEXT, AS_FORMAT));
}

TEST(LogVerbatimTest, EndsWithTheCall) {
    CLibraryProbe probe;
    PlatformLogHandler platform;
    logVerbatim(ERROR, "tag", "%s", PERCENT);
    platform.handleLogMessage(AS_TEXT, ERROR);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(AS_TEXT, AS_FORMAT));
}

TEST(LogVerbatimTest, EndsWithTheCallWhenASinkThrows) {
    CLibraryProbe probe;
    {
        Registration const registration(std::make_shared<FunctionSink>(
            [](char const*, LogLevel) { throw std::runtime_error("no"); }));
        logVerbatim(ERROR, "tag", "%s", PERCENT);
    }
    log(ERROR, "tag", "%s", PERCENT);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(AS_TEXT, AS_FORMAT));
}

// Logs when a thread that ends inside a sink unwinds past the call.
void* endInsideASink(void* lines) {
    CLibraryProbe probe;
    PlatformLogHandler platform;
    std::shared_ptr<void> const atUnwinding(nullptr, [&](void*) {
        platform.handleLogMessage(AS_TEXT, ERROR);
        *static_cast<std::vector<std::string>*>(lines) = probe.systemLogLines();
    });
    logVerbatim(ERROR, "tag", "%s", PERCENT);
    return nullptr;
}

TEST(LogVerbatimTest, EndsWithTheCallWhenTheThreadExitsInsideASink) {
    Registration const registration(
        std::make_shared<FunctionSink>([](char const*, LogLevel) { pthread_exit(nullptr); }));
    std::vector<std::string> lines;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, endInsideASink, &lines), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_THAT(lines, ElementsAre(AS_TEXT, AS_FORMAT));
}

TEST(LogVerbatimTest, OtherThreadsKeepTheirOwnRule) {
    Gate isInside;
    Gate goOn;
    auto const caller = std::this_thread::get_id();
    Registration const registration(std::make_shared<FunctionSink>([&](char const*, LogLevel) {
        if (std::this_thread::get_id() != caller) {
            isInside.open();
            EXPECT_TRUE(goOn.wait());
        }
    }));
    std::vector<std::string> ofTheOther;
    std::thread other([&] {
        CLibraryProbe probe;
        PlatformLogHandler platform;
        logVerbatim(ERROR, "tag", "%s", PERCENT);
        platform.handleLogMessage(AS_TEXT, ERROR);
        ofTheOther = probe.systemLogLines();
    });
    EXPECT_TRUE(isInside.wait());
    CLibraryProbe probe;
    log(ERROR, "tag", "%s", PERCENT);
    goOn.open();
    other.join();
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(AS_FORMAT));
    EXPECT_THAT(ofTheOther, ElementsAre(AS_TEXT, AS_FORMAT));
}

TEST(LogVerbatimTest, LineThatASinkPassesToAnotherThreadIsItsFormatThere) {
    std::vector<std::string> lines;
    Registration const registration(
        std::make_shared<FunctionSink>([&](char const* line, LogLevel level) {
            std::thread([&] {
                CLibraryProbe probe;
                PlatformLogHandler().handleLogMessage(line, level);
                lines = probe.systemLogLines();
            }).join();
        }));
    logVerbatim(ERROR, "tag", "%s", PERCENT);
    EXPECT_THAT(lines, ElementsAre(AS_FORMAT));
}

}  // namespace

}  // namespace ovra::log
