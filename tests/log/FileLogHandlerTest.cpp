#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>
#include <tests/log/SinkTrace.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using namespace ovra::test;
using namespace test;

class FileLogHandlerTest : public ::testing::Test {
protected:
    ScratchDirectory directory;
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
