#include <ovra/log/LogHandlers.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include <ovra/log/Log.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>
#include <tests/log/SinkTrace.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using namespace ovra::test;
using namespace test;

// The place of a virtual operation in the table; a virtual destructor takes two.
template <typename Operation>
std::uintptr_t slotOf(Operation operation) {
    std::uintptr_t parts[2];
    static_assert(sizeof parts == sizeof operation);
    std::memcpy(parts, &operation, sizeof parts);
    return (parts[0] & ~std::uintptr_t{1}) / sizeof(void*);
}

// --- the interface

TEST(LogHandlerTest, SinksKeepTheOrderOfTheVirtualOperations) {
    EXPECT_EQ(slotOf(&LogHandler::handleLogMessage), 2u);
    EXPECT_EQ(slotOf(&PlatformLogHandler::handleLogMessage), 2u);
    EXPECT_EQ(slotOf(&StandardStreamLogHandler::handleLogMessage), 2u);
    EXPECT_EQ(slotOf(&FileLogHandler::handleLogMessage), 2u);
    EXPECT_TRUE(std::has_virtual_destructor_v<LogHandler>);
    EXPECT_TRUE(std::is_abstract_v<LogHandler>);
    EXPECT_EQ(sizeof(LogHandler), sizeof(void*)) << "holds data";
}

// --- the system log

TEST(PlatformLogHandlerTest, PriorityFollowsFromTheLevel) {
    struct Row {
        long long level;
        int priority;
    };
    Row const rows[] = {{0, 6},   {1, 2},    {2, 3},       {3, 6},       {4, 6},          {5, 7},
                        {6, 6},   {7, 6},    {8, 6},       {-1, 6},      {-2, 6},         {255, 6},
                        {257, 6}, {-255, 6}, {INT_MAX, 6}, {INT_MIN, 6}, {INT_MIN + 1, 6}};
    EXPECT_THAT((std::vector<int>{LOG_CRIT, LOG_ERR, LOG_INFO, LOG_DEBUG}),
                ElementsAre(2, 3, 6, 7));
    PlatformLogHandler handler;
    std::mutex mutex;
    for (Row const& row : rows) {
        CLibraryProbe probe;
        handleLogMessageEInkOrLinux("line", levelOf(row.level), mutex);
        handler.handleLogMessage("line", levelOf(row.level));
        ASSERT_EQ(probe.systemLogCalls.size(), 2u);
        for (SystemLogCall const& call : probe.systemLogCalls) {
            EXPECT_EQ(call.priority, row.priority) << "level " << row.level;
            EXPECT_EQ(call.text, "line");
        }
    }
}

TEST(PlatformLogHandlerTest, LineItselfIsTheFormat) {
    PlatformLogHandler handler;
    std::mutex mutex;
    CLibraryProbe probe;
    char const line[] = "100%% of it: %m";
    errno = ENOTDIR;
    handler.handleLogMessage(line, ERROR);
    errno = ENOTDIR;
    handleLogMessageEInkOrLinux(line, ERROR, mutex);
    ASSERT_EQ(probe.systemLogCalls.size(), 2u);
    for (SystemLogCall const& call : probe.systemLogCalls) {
        EXPECT_EQ(call.format, line);
        EXPECT_EQ(call.text, std::string("100% of it: ") + strerror(ENOTDIR));
    }
}

TEST(PlatformLogHandlerTest, WritesWhileItHoldsTheMutexItIsGiven) {
    std::mutex mutex;
    Trace<std::mutex> trace(mutex);
    trace.probe.onSystemLog = [&] { trace.events.emplace_back("write"); };
    handleLogMessageEInkOrLinux("line", ERROR, mutex);
    EXPECT_THAT(trace.events, ElementsAre("lock", "write", "unlock"));
}

TEST(PlatformLogHandlerTest, WritesWhileItHoldsItsOwnMutex) {
    PlatformLogHandler handler;
    Trace<PlatformLogHandler> trace(handler);
    trace.probe.onSystemLog = [&] { trace.events.emplace_back("write"); };
    handler.handleLogMessage("one", ERROR);
    handler.handleLogMessage("two", INFO);
    EXPECT_THAT(trace.events, ElementsAre("lock", "write", "unlock", "lock", "write", "unlock"));
    EXPECT_EQ(trace.mutexes.size(), 1u);
}

TEST(PlatformLogHandlerTest, MutexThatCannotBeLockedIsThrown) {
    PlatformLogHandler handler;
    CLibraryProbe probe;
    expectThrowsWhenItCannotLock(handler, ERROR);
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
    handler.handleLogMessage("next", ERROR);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("next"));
}

TEST(PlatformLogHandlerTest, MutexHeldByTheCallerIsThrownIfItIsDetected) {
    std::mutex mutex;
    pthread_mutexattr_t attributes;
    ASSERT_EQ(pthread_mutexattr_init(&attributes), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK), 0);
    ASSERT_EQ(pthread_mutex_init(mutex.native_handle(), &attributes), 0);
    pthread_mutexattr_destroy(&attributes);

    CLibraryProbe probe;
    mutex.lock();
    EXPECT_THROW(handleLogMessageEInkOrLinux("lost", ERROR, mutex), std::system_error);
    mutex.unlock();
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
    handleLogMessageEInkOrLinux("next", ERROR, mutex);
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("next"));
    pthread_mutex_destroy(mutex.native_handle());
}

TEST(PlatformLogHandlerTest, NeverOpensNorClosesTheSystemLogNorWritesElsewhere) {
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    CLibraryProbe probe;
    AllocationProbe allocations;
    {
        PlatformLogHandler handler;
        EXPECT_EQ(allocations.allocations, 0);
        for (long long const level : ALL_LEVELS) {
            handler.handleLogMessage("line", levelOf(level));
        }
    }
    EXPECT_EQ(probe.systemLogCalls.size(), std::size(ALL_LEVELS));
    EXPECT_EQ(probe.openlogCalls, 0);
    EXPECT_EQ(probe.closelogCalls, 0);
    EXPECT_EQ(output.text, "");
    EXPECT_EQ(errors.text, "");
}

TEST(PlatformLogHandlerTest, AllocatesNothingForALine) {
    AllocationProbe const allocations;
    PlatformLogHandler handler;
    handler.handleLogMessage("a line that is longer than what a string holds by itself", ERROR);
    log(ERROR, "tag", "%s", "text");
    EXPECT_EQ(allocations.allocations, 0);
}

TEST(PlatformLogHandlerTest, HoldsNothingButItsMutex) {
    struct Expected {
        virtual ~Expected() = default;
        std::mutex mutex;
    };
    EXPECT_EQ(sizeof(PlatformLogHandler), sizeof(Expected));
    expectNeitherCopiesNorMoves<PlatformLogHandler>();
}

// --- the standard streams

TEST(StandardStreamLogHandlerTest, StreamFollowsFromTheLevel) {
    StandardStreamLogHandler handler;
    for (long long const level : ALL_LEVELS) {
        std::string output;
        std::string errors;
        {
            StreamCapture const outputCapture(std::cout);
            StreamCapture const errorsCapture(std::cerr);
            handler.handleLogMessage("line", levelOf(level));
            output = outputCapture.text;
            errors = errorsCapture.text;
        }
        bool const isUrgent = level == 1 || level == 2;
        EXPECT_EQ(output, isUrgent ? "" : "line\n<flush>") << "level " << level;
        EXPECT_EQ(errors, isUrgent ? "line\n<flush>" : "") << "level " << level;
    }
}

TEST(StandardStreamLogHandlerTest, LineIsWrittenAsItIs) {
    StreamCapture output(std::cout);
    CLibraryProbe probe;
    StandardStreamLogHandler handler;
    handler.handleLogMessage("100%% %s %n", INFO);
    handler.handleLogMessage("", INFO);
    handler.handleLogMessage("ends in a newline\n", INFO);
    EXPECT_EQ(output.text, "100%% %s %n\n<flush>\n<flush>ends in a newline\n\n<flush>");
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
}

// Lets a descriptor write to a file for a while.
class Redirection {
public:
    Redirection(int redirectedDescriptor, std::string const& path)
        : descriptor(redirectedDescriptor), kept(dup(redirectedDescriptor)) {
        int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(dup2(file, descriptor), 0);
        close(file);
    }
    Redirection(Redirection const&) = delete;
    Redirection& operator=(Redirection const&) = delete;
    ~Redirection() {
        dup2(kept, descriptor);
        close(kept);
    }

private:
    int const descriptor;
    int const kept;
};

TEST(StandardStreamLogHandlerTest, EachLineReachesTheProcessesStreamsAtOnce) {
    ScratchDirectory const directory;
    std::string const output = directory.path("output");
    std::string const errors = directory.path("errors");
    std::string read[4];
    std::cout.flush();
    std::fflush(nullptr);
    {
        Redirection const outputRedirection(STDOUT_FILENO, output);
        Redirection const errorsRedirection(STDERR_FILENO, errors);
        StandardStreamLogHandler handler;
        handler.handleLogMessage("one", INFO);
        read[0] = contentOf(output);
        handler.handleLogMessage("two", ERROR);
        read[1] = contentOf(errors);
        handler.handleLogMessage("three", VERBOSE);
        read[2] = contentOf(output);
        handler.handleLogMessage("four", CRITICAL);
        read[3] = contentOf(errors);
        std::fflush(nullptr);
    }
    EXPECT_THAT(read, ElementsAre("one\n", "two\n", "one\nthree\n", "two\nfour\n"));
}

TEST(StandardStreamLogHandlerTest, WritesAndFlushesBothStreamsUnderOneMutex) {
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    StandardStreamLogHandler handler;
    Trace<StandardStreamLogHandler> trace(handler);
    output.onWrite = [&] { trace.events.emplace_back("output"); };
    output.onFlush = [&] { trace.events.emplace_back("flush output"); };
    errors.onWrite = [&] { trace.events.emplace_back("errors"); };
    errors.onFlush = [&] { trace.events.emplace_back("flush errors"); };
    handler.handleLogMessage("line", INFO);
    // Line and newline.
    EXPECT_THAT(trace.events, ElementsAre("lock", "output", "output", "flush output", "unlock"));
    trace.events.clear();
    handler.handleLogMessage("line", ERROR);
    EXPECT_THAT(trace.events, ElementsAre("lock", "errors", "errors", "flush errors", "unlock"));
    EXPECT_EQ(trace.mutexes.size(), 1u);
}

TEST(StandardStreamLogHandlerTest, MutexThatCannotBeLockedIsThrown) {
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    StandardStreamLogHandler handler;
    expectThrowsWhenItCannotLock(handler, INFO);
    expectThrowsWhenItCannotLock(handler, ERROR);
    EXPECT_EQ(output.text, "");
    EXPECT_EQ(errors.text, "");
    handler.handleLogMessage("next", INFO);
    EXPECT_EQ(output.text, "next\n<flush>");
}

TEST(StandardStreamLogHandlerTest, NullLineSilencesThatStreamOnly) {
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    StandardStreamLogHandler handler;
    handler.handleLogMessage("before", INFO);
    handler.handleLogMessage(nullptr, INFO);
    EXPECT_TRUE(std::cout.bad());
    handler.handleLogMessage("lost", INFO);
    EXPECT_EQ(output.text, "before\n<flush>");

    EXPECT_TRUE(std::cerr.good());
    handler.handleLogMessage("still there", ERROR);
    EXPECT_EQ(errors.text, "still there\n<flush>");
    handler.handleLogMessage(nullptr, ERROR);
    EXPECT_TRUE(std::cerr.bad());
}

TEST(StandardStreamLogHandlerTest, ThreadsDoNotMixTheirLines) {
    StreamCapture output(std::cout);
    StandardStreamLogHandler handler;
    std::vector<std::thread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter) {
        threads.emplace_back([&handler, letter] {
            std::string const line(50, letter);
            for (int i = 0; i < 200; ++i) {
                handler.handleLogMessage(line.c_str(), i % 2 == 0 ? INFO : DEBUG);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string rest = output.text;
    for (char letter = 'a'; letter < 'e'; ++letter) {
        std::string const whole = std::string(50, letter) + "\n<flush>";
        EXPECT_EQ(std::count(output.text.begin(), output.text.end(), letter), 50 * 200);
        for (std::size_t at = rest.find(whole); at != std::string::npos; at = rest.find(whole)) {
            rest.erase(at, whole.size());
        }
    }
    EXPECT_EQ(rest, "");
}

TEST(StandardStreamLogHandlerTest, AllocatesNothing) {
    StreamCapture output(std::cout);
    output.text.reserve(1000);
    AllocationProbe allocations;
    StandardStreamLogHandler handler;
    handler.handleLogMessage("a line that is longer than what a string holds by itself", INFO);
    EXPECT_EQ(allocations.allocations, 0);
}

TEST(StandardStreamLogHandlerTest, HoldsNothingButItsMutex) {
    struct Expected {
        virtual ~Expected() = default;
        std::mutex mutex;
    };
    EXPECT_EQ(sizeof(StandardStreamLogHandler), sizeof(Expected));
    expectNeitherCopiesNorMoves<StandardStreamLogHandler>();
}

}  // namespace

}  // namespace ovra::log
