#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include "tests/log/CLibraryProbe.h"
#include "tests/log/LogTestSupport.h"

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using test::AllocationProbe;
using test::CLibraryProbe;
using test::contentOf;
using test::levelOf;
using test::openDescriptors;
using test::StreamCapture;
using test::SystemLogCall;
using test::TemporaryDirectory;
using test::writeFile;

// Whether `mutex` is a part of `object` itself.
template <typename Object>
bool isInside(Object const& object, void const* mutex) {
    auto const address = reinterpret_cast<std::uintptr_t>(mutex);
    auto const begin = reinterpret_cast<std::uintptr_t>(&object);
    return begin <= address && address < begin + sizeof(Object);
}

// What a sink does for a line, in order: "lock" and "unlock" of a mutex of its own, and what the
// test reports from in between.
template <typename Sink>
class Trace {
public:
    explicit Trace(Sink const& watchedSink) : sink(watchedSink) {
        probe.onLock = [this](void const* mutex) {
            if (isInside(sink, mutex)) {
                mutexes.insert(mutex);
                events.emplace_back("lock");
            }
            return 0;
        };
        probe.onUnlock = [this](void const* mutex) {
            if (isInside(sink, mutex)) {
                events.emplace_back("unlock");
            }
        };
    }

    CLibraryProbe probe;
    std::vector<std::string> events;
    std::set<void const*> mutexes;

private:
    Sink const& sink;
};

template <typename Sink>
void expectThrowsWhenItCannotLock(Sink& sink, LogLevel level) {
    CLibraryProbe probe;
    probe.onLock = [&](void const* mutex) { return isInside(sink, mutex) ? EAGAIN : 0; };
    try {
        sink.handleLogMessage("lost", level);
        ADD_FAILURE() << "no exception";
    } catch (std::system_error const& e) {
        EXPECT_EQ(e.code(), std::error_code(EAGAIN, std::generic_category()));
    }
}

template <typename Sink>
void expectNeitherCopiesNorMoves() {
    EXPECT_FALSE(std::is_copy_constructible_v<Sink>);
    EXPECT_FALSE(std::is_copy_assignable_v<Sink>);
    EXPECT_FALSE(std::is_move_constructible_v<Sink>);
    EXPECT_FALSE(std::is_move_assignable_v<Sink>);
}

// The place of a virtual operation in the table; a virtual destructor takes two.
template <typename Operation>
std::uintptr_t slotOf(Operation operation) {
    std::uintptr_t parts[2];
    static_assert(sizeof parts == sizeof operation);
    std::memcpy(parts, &operation, sizeof parts);
    return (parts[0] & ~std::uintptr_t{1}) / sizeof(void*);
}

long long const ALL_LEVELS[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, -1, -2, INT_MAX, INT_MIN, INT_MIN + 1};

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

TEST(PlatformLogHandlerTest, MutexHeldByTheCallerIsThrownIfItCanTell) {
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
    TemporaryDirectory const directory;
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

// --- the file

class FileLogHandlerTest : public ::testing::Test {
protected:
    TemporaryDirectory directory;
    std::string const path = directory.path("log");
};

TEST_F(FileLogHandlerTest, CreatesTheFileAndWritesEachLineAtOnce) {
    FileLogHandler handler(path.c_str());
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    EXPECT_EQ(contentOf(path), "");
    handler.handleLogMessage("one", ERROR);
    EXPECT_EQ(contentOf(path), "one\n");
    handler.handleLogMessage("two\n", INFO);
    EXPECT_EQ(contentOf(path), "one\ntwo\n\n");
    handler.handleLogMessage("", INFO);
    EXPECT_EQ(contentOf(path), "one\ntwo\n\n\n");
}

TEST_F(FileLogHandlerTest, TakesEveryLevel) {
    FileLogHandler handler(path.c_str());
    std::string expected;
    for (long long const level : ALL_LEVELS) {
        std::string const line = "level " + std::to_string(level);
        handler.handleLogMessage(line.c_str(), levelOf(level));
        expected += line + "\n";
    }
    EXPECT_EQ(contentOf(path), expected);
}

TEST_F(FileLogHandlerTest, LineIsWrittenAsItIs) {
    CLibraryProbe probe;
    FileLogHandler handler(path.c_str());
    handler.handleLogMessage("100%% %s %n", INFO);
    EXPECT_EQ(contentOf(path), "100%% %s %n\n");
    EXPECT_THAT(probe.systemLogCalls, IsEmpty());
}

TEST_F(FileLogHandlerTest, DiscardsWhatTheFileHeld) {
    writeFile(path, "the log of an earlier run\n");
    FileLogHandler handler(path.c_str());
    EXPECT_EQ(contentOf(path), "");
    handler.handleLogMessage("one", ERROR);
    EXPECT_EQ(contentOf(path), "one\n");
}

TEST_F(FileLogHandlerTest, EveryConstructionStartsTheFileAfresh) {
    FileLogHandler first(path.c_str());
    first.handleLogMessage("first", ERROR);
    FileLogHandler second(path.c_str());
    EXPECT_EQ(contentOf(path), "");
    second.handleLogMessage("second", ERROR);
    EXPECT_EQ(contentOf(path), "second\n");
}

TEST_F(FileLogHandlerTest, DirectoryGetsAFileOfItsOwn) {
    writeFile(directory.path("ovra.log"), "the log of an earlier run\n");
    writeFile(directory.path("other"), "untouched");
    FileLogHandler handler(directory.path().c_str());
    EXPECT_EQ(contentOf(directory.path("ovra.log")), "");
    handler.handleLogMessage("one", ERROR);
    EXPECT_EQ(contentOf(directory.path("ovra.log")), "one\n");
    EXPECT_EQ(contentOf(directory.path("other")), "untouched");
}

TEST_F(FileLogHandlerTest, DirectoryMayBeNamedInOtherWays) {
    std::filesystem::create_directory(directory.path("directory"));
    std::filesystem::create_directory_symlink(directory.path("directory"), directory.path("link"));
    std::string const file = directory.path("directory/ovra.log");
    for (char const* name : {"directory/", "directory/.", "link", "link/"}) {
        {
            FileLogHandler handler(directory.path(name).c_str());
            handler.handleLogMessage(name, ERROR);
        }
        EXPECT_EQ(contentOf(file), std::string(name) + "\n");
        std::filesystem::remove(file);
    }
}

TEST_F(FileLogHandlerTest, LinkToAFileWritesToItsTarget) {
    writeFile(path, "the log of an earlier run\n");
    std::filesystem::create_symlink(path, directory.path("link"));
    FileLogHandler handler(directory.path("link").c_str());
    handler.handleLogMessage("one", ERROR);
    EXPECT_EQ(contentOf(path), "one\n");
    EXPECT_TRUE(std::filesystem::is_symlink(directory.path("link")));
}

TEST_F(FileLogHandlerTest, FileInAMissingDirectoryIsDiscardedInSilence) {
    std::string const missing = directory.path("missing");
    std::size_t const descriptors = openDescriptors();
    FileLogHandler handler((missing + "/log").c_str());
    EXPECT_NO_THROW(handler.handleLogMessage("one", ERROR));
    EXPECT_NO_THROW(handler.handleLogMessage("two", ERROR));
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_EQ(openDescriptors(), descriptors);

    // Not opened later on, either.
    std::filesystem::create_directory(missing);
    EXPECT_NO_THROW(handler.handleLogMessage("three", ERROR));
    EXPECT_TRUE(std::filesystem::is_empty(missing));
}

TEST_F(FileLogHandlerTest, WhatCannotBeOpenedIsDiscardedInSilence) {
    std::filesystem::create_directory(directory.path("ovra.log"));
    writeFile(directory.path("file"), "untouched");
    for (std::string const& unusable :
         {std::string(), directory.path(), directory.path("file/log"), directory.path("new/")}) {
        std::size_t const descriptors = openDescriptors();
        FileLogHandler handler(unusable.c_str());
        EXPECT_NO_THROW(handler.handleLogMessage("one", ERROR));
        EXPECT_EQ(openDescriptors(), descriptors) << unusable;
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory.path("ovra.log")));
    EXPECT_EQ(contentOf(directory.path("file")), "untouched");
}

TEST_F(FileLogHandlerTest, StreamIsLockedEvenIfItCouldNotBeOpened) {
    FileLogHandler handler(directory.path("missing/log").c_str());
    Trace<FileLogHandler> trace(handler);
    handler.handleLogMessage("one", ERROR);
    EXPECT_THAT(trace.events, ElementsAre("lock", "unlock"));
}

// Explicit instantiation may name a private member.
template <std::unique_ptr<std::ostream> FileLogHandler::*Stream>
struct StreamAccess {
    friend std::unique_ptr<std::ostream>& streamOf(FileLogHandler& handler) {
        return handler.*Stream;
    }
};
std::unique_ptr<std::ostream>& streamOf(FileLogHandler& handler);
template struct StreamAccess<&FileLogHandler::stream>;

// No path leads to a handler without a stream, but a handler must not rely on that.
TEST_F(FileLogHandlerTest, WithoutAStreamNothingIsLocked) {
    FileLogHandler handler(path.c_str());
    streamOf(handler).reset();
    Trace<FileLogHandler> trace(handler);
    EXPECT_NO_THROW(handler.handleLogMessage("one", ERROR));
    EXPECT_THAT(trace.events, IsEmpty());
    EXPECT_EQ(contentOf(path), "");
}

TEST_F(FileLogHandlerTest, FullDeviceIsIgnored) {
    struct stat status;
    if (stat("/dev/full", &status) != 0 || !S_ISCHR(status.st_mode)) {
        GTEST_SKIP() << "there is no /dev/full";
    }
    FileLogHandler handler("/dev/full");
    EXPECT_NO_THROW(handler.handleLogMessage("one", ERROR));
    EXPECT_NO_THROW(handler.handleLogMessage("two", ERROR));
}

TEST_F(FileLogHandlerTest, NullPathIsRefused) {
    std::size_t const descriptors = openDescriptors();
    EXPECT_THROW(FileLogHandler(nullptr), std::logic_error);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(FileLogHandlerTest, FileIsOpenAsLongAsTheSinkLives) {
    std::size_t const before = openDescriptors();
    {
        FileLogHandler handler(path.c_str());
        EXPECT_EQ(openDescriptors(), before + 1);
        handler.handleLogMessage("one", ERROR);
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(contentOf(path), "one\n");
}

TEST_F(FileLogHandlerTest, FileMayBeRemovedMeanwhile) {
    FileLogHandler handler(path.c_str());
    std::filesystem::remove(path);
    EXPECT_NO_THROW(handler.handleLogMessage("one", ERROR));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileLogHandlerTest, WritesAndFlushesWhileItHoldsItsMutex) {
    FileLogHandler handler(path.c_str());
    Trace<FileLogHandler> trace(handler);
    auto const reportingContent = [&](auto const& hook) {
        return [&, hook](void const* mutex) {
            if (isInside(handler, mutex)) {
                trace.events.push_back(contentOf(path));
            }
            return hook(mutex);
        };
    };
    trace.probe.onLock = reportingContent(trace.probe.onLock);
    trace.probe.onUnlock = reportingContent(trace.probe.onUnlock);
    handler.handleLogMessage("one", ERROR);
    handler.handleLogMessage("two", VERBOSE);
    EXPECT_THAT(trace.events, ElementsAre("", "lock", "one\n", "unlock",  //
                                          "one\n", "lock", "one\ntwo\n", "unlock"));
    EXPECT_EQ(trace.mutexes.size(), 1u);
}

TEST_F(FileLogHandlerTest, MutexThatCannotBeLockedIsThrown) {
    FileLogHandler handler(path.c_str());
    expectThrowsWhenItCannotLock(handler, ERROR);
    EXPECT_EQ(contentOf(path), "");
    handler.handleLogMessage("next", ERROR);
    EXPECT_EQ(contentOf(path), "next\n");
}

TEST_F(FileLogHandlerTest, NullLineSilencesTheSink) {
    FileLogHandler handler(path.c_str());
    handler.handleLogMessage("before", ERROR);
    EXPECT_NO_THROW(handler.handleLogMessage(nullptr, ERROR));
    EXPECT_NO_THROW(handler.handleLogMessage("lost", ERROR));
    EXPECT_EQ(contentOf(path), "before\n");
}

TEST_F(FileLogHandlerTest, ThreadsDoNotMixTheirLines) {
    FileLogHandler handler(path.c_str());
    std::vector<std::thread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter) {
        threads.emplace_back([&handler, letter] {
            std::string const line(50, letter);
            for (int i = 0; i < 200; ++i) {
                handler.handleLogMessage(line.c_str(), INFO);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<std::string> const lines = test::linesOf(contentOf(path));
    for (char letter = 'a'; letter < 'e'; ++letter) {
        EXPECT_EQ(std::count(lines.begin(), lines.end(), std::string(50, letter)), 200);
    }
    EXPECT_EQ(lines.size(), 4u * 200);
}

TEST_F(FileLogHandlerTest, LineAllocatesNothing) {
    FileLogHandler handler(path.c_str());
    AllocationProbe allocations;
    handler.handleLogMessage("a line that is longer than what a string holds by itself", INFO);
    EXPECT_EQ(allocations.allocations, 0);
}

TEST_F(FileLogHandlerTest, ConstructionThatRunsOutOfMemoryLeavesNothingBehind) {
    std::string const name = directory.path();
    bool isComplete = false;
    int failures = 0;
    for (int failing = 1; !isComplete; ++failing) {
        std::size_t const descriptors = openDescriptors();
        AllocationProbe allocations;
        allocations.failingAllocation = failing;
        try {
            FileLogHandler const handler(name.c_str());
            isComplete = true;
        } catch (std::bad_alloc const&) {
            ++failures;
        }
        allocations.failingAllocation = 0;
        EXPECT_EQ(allocations.releases, allocations.allocations) << "allocation " << failing;
        EXPECT_EQ(openDescriptors(), descriptors) << "allocation " << failing;
    }
    EXPECT_GT(failures, 2);
}

TEST_F(FileLogHandlerTest, HoldsItsFileItsStreamAndItsMutex) {
    struct Expected {
        virtual ~Expected() = default;
        fs::FileHandle file;
        std::unique_ptr<std::ostream> stream;
        std::mutex mutex;
    };
    EXPECT_EQ(sizeof(FileLogHandler), sizeof(Expected));
    expectNeitherCopiesNorMoves<FileLogHandler>();
    EXPECT_FALSE((std::is_convertible_v<char const*, FileLogHandler>));
}

}  // namespace

}  // namespace ovra::log
