#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskHandle.h>
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

LogHandlerType typeOf(long long value) {
    return static_cast<LogHandlerType>(value);
}

long long const UNKNOWN_TYPES[] = {0, 4, 5, -1, 255, 257, INT_MAX, INT_MIN};

// A registered sink under the name of `registration`, which `log` reaches.
std::shared_ptr<RecordingSink> addRecordingSink(Registration const& registration) {
    auto sink = std::make_shared<RecordingSink>();
    addLogHandler(sink, registration.name());
    return sink;
}

// --- the factory

TEST(LogHandlerRegistrationTest, TypesAreNumberedFromOne) {
    EXPECT_EQ(static_cast<int>(FILE_HANDLER), 1);
    EXPECT_EQ(static_cast<int>(PLATFORM_HANDLER), 2);
    EXPECT_EQ(static_cast<int>(STANDARD_STREAM_HANDLER), 3);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<LogHandlerType>, std::int32_t>));
}

TEST(LogHandlerRegistrationTest, FactoryMakesTheKindAskedFor) {
    ScratchDirectory const directory;
    auto const file = createLogHandler(FILE_HANDLER, directory.path("log").c_str());
    auto const platform = createLogHandler(PLATFORM_HANDLER, "name");
    auto const streams = createLogHandler(STANDARD_STREAM_HANDLER, "name");
    EXPECT_NE(dynamic_cast<FileLogHandler*>(file.get()), nullptr);
    EXPECT_NE(dynamic_cast<PlatformLogHandler*>(platform.get()), nullptr);
    EXPECT_NE(dynamic_cast<StandardStreamLogHandler*>(streams.get()), nullptr);
}

TEST(LogHandlerRegistrationTest, CallerOwnsWhatTheFactoryMakesAlone) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    for (LogHandlerType const type : {FILE_HANDLER, PLATFORM_HANDLER, STANDARD_STREAM_HANDLER}) {
        auto first = createLogHandler(type, path.c_str());
        auto const second = createLogHandler(type, path.c_str());
        EXPECT_NE(first, second);
        EXPECT_EQ(first.use_count(), 1);
        std::weak_ptr<LogHandler> const watched = first;
        first.reset();
        EXPECT_TRUE(watched.expired());
    }
}

TEST(LogHandlerRegistrationTest, WhatTheFactoryMakesIsNotRegistered) {
    ScratchDirectory const directory;
    StreamCapture errors(std::cerr);
    CLibraryProbe probe;
    auto const file = createLogHandler(FILE_HANDLER, directory.path("log").c_str());
    auto const platform = createLogHandler(PLATFORM_HANDLER, "name");
    auto const streams = createLogHandler(STANDARD_STREAM_HANDLER, "name");
    log(ERROR, "tag", "text");
    EXPECT_EQ(contentOf(directory.path("log")), "");
    EXPECT_EQ(errors.text, "");
    EXPECT_EQ(probe.systemLogCalls.size(), 1u);
}

TEST(LogHandlerRegistrationTest, FileIsDeletedThroughTheBaseOfItsSink) {
    ScratchDirectory const directory;
    std::size_t const before = openDescriptors();
    std::shared_ptr<LogHandler> handler =
        createLogHandler(FILE_HANDLER, directory.path("log").c_str());
    EXPECT_EQ(openDescriptors(), before + 1);
    handler.reset();
    EXPECT_EQ(openDescriptors(), before);
}

TEST(LogHandlerRegistrationTest, OnlyTheFileSinkLooksAtTheName) {
    EXPECT_NE(createLogHandler(PLATFORM_HANDLER, nullptr), nullptr);
    EXPECT_NE(createLogHandler(STANDARD_STREAM_HANDLER, nullptr), nullptr);
    EXPECT_THROW(createLogHandler(FILE_HANDLER, nullptr), std::logic_error);
}

TEST(LogHandlerRegistrationTest, FactoryMakesNothingOfAnUnknownType) {
    ScratchDirectory const directory;
    for (long long const type : UNKNOWN_TYPES) {
        EXPECT_EQ(createLogHandler(typeOf(type), directory.path("log").c_str()), nullptr)
            << "type " << type;
        EXPECT_EQ(createLogHandler(typeOf(type), nullptr), nullptr) << "type " << type;
    }
    EXPECT_FALSE(std::filesystem::exists(directory.path("log")));
}

// --- registration

TEST(LogHandlerRegistrationTest, RegisteredFileReceivesEachLine) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    Registration const registration(path);
    addLogHandler(FILE_HANDLER, path.c_str());
    LevelKeeper const levelKeeper(INFO);
    log(ERROR, "tag", "100%%%% %d", 1);
    EXPECT_EQ(contentOf(path), "[tag:ERROR] 100%% 1\n");
    log(INFO, "tag", "two");
    log(DEBUG, "tag", "filtered");
    EXPECT_EQ(contentOf(path), "[tag:ERROR] 100%% 1\n[tag:INFO] two\n");
}

TEST(LogHandlerRegistrationTest, RegisteredDirectoryGetsAFileOfItsOwn) {
    ScratchDirectory const directory;
    Registration const registration(directory.path());
    addLogHandler(FILE_HANDLER, directory.path().c_str());
    log(ERROR, "tag", "text");
    EXPECT_EQ(contentOf(directory.path("ovra.log")), "[tag:ERROR] text\n");
}

TEST(LogHandlerRegistrationTest, RegisteredStandardStreamsReceiveEachLine) {
    StreamCapture output(std::cout);
    StreamCapture errors(std::cerr);
    Registration const registration(STANDARD_STREAM_HANDLER);
    LevelKeeper const levelKeeper(VERBOSE);
    log(CRITICAL, "tag", "one");
    log(WARNING, "tag", "two");
    log(VERBOSE, "tag", "three");
    log(DISABLED, "tag", "four");
    EXPECT_EQ(errors.text, "[tag:CRITICAL] one\n<flush>");
    EXPECT_EQ(output.text,
              "[tag:WARNING] two\n<flush>[tag:VERBOSE] three\n<flush>[tag:DISABLED] four\n<flush>");
}

TEST(LogHandlerRegistrationTest, RegisteredPlatformSinkIsASecondOneWithAMutexOfItsOwn) {
    Registration const registration(PLATFORM_HANDLER);
    CLibraryProbe probe;
    std::vector<void const*> locked;
    probe.onLock = [&](void const* mutex) {
        locked.push_back(mutex);
        return 0;
    };
    log(ERROR, "tag", "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] text", "[tag:ERROR] text"));
    ASSERT_EQ(locked.size(), 2u);
    EXPECT_NE(locked[0], locked[1]);
}

TEST(LogHandlerRegistrationTest, PercentSignsAreInterpretedByTheSystemLogOnly) {
    ScratchDirectory const directory;
    Registration const file(directory.path("log"));
    addLogHandler(FILE_HANDLER, file.name());
    StreamCapture errors(std::cerr);
    Registration const streams(STANDARD_STREAM_HANDLER);
    CLibraryProbe probe;
    log(ERROR, "tag", "100%%%%");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] 100%"));
    EXPECT_EQ(errors.text, "[tag:ERROR] 100%%\n<flush>");
    EXPECT_EQ(contentOf(file.name()), "[tag:ERROR] 100%%\n");
}

TEST(LogHandlerRegistrationTest, SinksUnderDifferentNamesAreAllKept) {
    Registration const first("");
    Registration const second("a");
    Registration const third("A");
    auto const sinks = {addRecordingSink(first), addRecordingSink(second), addRecordingSink(third)};
    log(ERROR, "tag", "text");
    for (auto const& sink : sinks) {
        EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text"));
    }
}

TEST(LogHandlerRegistrationTest, NameIsCopied) {
    Registration const registration;
    std::string name = registration.name();
    auto const first = std::make_shared<RecordingSink>();
    addLogHandler(first, name.c_str());
    name.assign(name.size(), 'x');
    auto const second = addRecordingSink(registration);
    log(ERROR, "tag", "text");
    EXPECT_THAT(first->lines(), IsEmpty());
    EXPECT_THAT(second->texts(), ElementsAre("[tag:ERROR] text"));
}

TEST(LogHandlerRegistrationTest, OneSinkMayHaveTwoNames) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const first(sink);
    Registration const second(sink);
    log(ERROR, "tag", "text");
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text", "[tag:ERROR] text"));
}

// --- replacement

TEST(LogHandlerRegistrationTest, SameNameLeavesOnlyTheSecondSink) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    StreamCapture errors(std::cerr);
    Registration const registration(path);
    addLogHandler(FILE_HANDLER, path.c_str());
    log(ERROR, "tag", "one");
    addLogHandler(STANDARD_STREAM_HANDLER, path.c_str());
    log(ERROR, "tag", "two");
    EXPECT_EQ(contentOf(path), "[tag:ERROR] one\n");
    EXPECT_EQ(errors.text, "[tag:ERROR] two\n<flush>");

    CLibraryProbe probe;
    addLogHandler(PLATFORM_HANDLER, path.c_str());
    log(ERROR, "tag", "three");
    EXPECT_EQ(probe.systemLogCalls.size(), 2u);
    EXPECT_EQ(contentOf(path), "[tag:ERROR] one\n");
    EXPECT_EQ(errors.text, "[tag:ERROR] two\n<flush>");
}

TEST(LogHandlerRegistrationTest, ReplacedFileIsClosed) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    Registration const registration(path);
    std::size_t const before = openDescriptors();
    addLogHandler(FILE_HANDLER, path.c_str());
    EXPECT_EQ(openDescriptors(), before + 1);
    addLogHandler(FILE_HANDLER, path.c_str());
    EXPECT_EQ(openDescriptors(), before + 1);
    addLogHandler(STANDARD_STREAM_HANDLER, path.c_str());
    EXPECT_EQ(openDescriptors(), before);
}

TEST(LogHandlerRegistrationTest, ReplacedFileStartsAfresh) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    Registration const registration(path);
    addLogHandler(FILE_HANDLER, path.c_str());
    log(ERROR, "tag", "one");
    addLogHandler(FILE_HANDLER, path.c_str());
    EXPECT_EQ(contentOf(path), "");
    log(ERROR, "tag", "two");
    EXPECT_EQ(contentOf(path), "[tag:ERROR] two\n");
}

TEST(LogHandlerRegistrationTest, ReplacedSinkIsDestroyedUnlessItHasAnotherOwner) {
    Registration const registration;
    auto kept = addRecordingSink(registration);
    EXPECT_EQ(kept.use_count(), 2);
    std::weak_ptr<LogHandler> const released = addRecordingSink(registration);
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_FALSE(released.expired());

    CLibraryProbe probe;
    addLogHandler(PLATFORM_HANDLER, registration.name());
    EXPECT_TRUE(released.expired());
    log(ERROR, "tag", "text");
    EXPECT_THAT(kept->lines(), IsEmpty());
    EXPECT_EQ(probe.systemLogCalls.size(), 2u);
}

// --- refusals

TEST(LogHandlerRegistrationTest, UnknownTypeRegistersNothing) {
    Registration const registration;
    auto const sink = addRecordingSink(registration);
    CLibraryProbe probe;
    for (long long const type : UNKNOWN_TYPES) {
        EXPECT_NO_THROW(addLogHandler(typeOf(type), registration.name()));
        EXPECT_NO_THROW(addLogHandler(typeOf(type), "no such sink"));
    }
    EXPECT_EQ(sink.use_count(), 2);
    log(ERROR, "tag", "text");
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text"));
    EXPECT_EQ(probe.systemLogCalls.size(), 1u);
}

TEST(LogHandlerRegistrationTest, EmptySinkChangesNothing) {
    Registration const registration;
    auto const sink = addRecordingSink(registration);
    addLogHandler(std::shared_ptr<LogHandler>(), registration.name());
    addLogHandler(std::shared_ptr<LogHandler>(), "no such sink");
    EXPECT_EQ(sink.use_count(), 2);
    log(ERROR, "tag", "text");
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text"));
}

TEST(LogHandlerRegistrationTest, NullNameIsRefusedAndChangesNothing) {
    Registration const registration("");
    auto const sink = addRecordingSink(registration);
    CLibraryProbe probe;
    for (long long const type : {0, 1, 2, 3, 4}) {
        EXPECT_THROW(addLogHandler(typeOf(type), nullptr), std::logic_error) << "type " << type;
    }
    auto const refused = std::make_shared<RecordingSink>();
    EXPECT_THROW(addLogHandler(refused, nullptr), std::logic_error);
    EXPECT_THROW(addLogHandler(std::shared_ptr<LogHandler>(), nullptr), std::logic_error);
    EXPECT_EQ(refused.use_count(), 1);

    log(ERROR, "tag", "text");
    EXPECT_THAT(refused->lines(), IsEmpty());
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text"));
    EXPECT_EQ(probe.systemLogCalls.size(), 1u);
}

TEST(LogHandlerRegistrationTest, FileThatCannotBeOpenedIsRegisteredAllTheSame) {
    ScratchDirectory const directory;
    std::string const path = directory.path("missing/log");
    Registration const registration(path);
    auto const sink = addRecordingSink(registration);
    EXPECT_NO_THROW(addLogHandler(FILE_HANDLER, path.c_str()));
    EXPECT_EQ(sink.use_count(), 1);
    CLibraryProbe probe;
    EXPECT_NO_THROW(log(ERROR, "tag", "text"));
    EXPECT_EQ(probe.systemLogCalls.size(), 1u);
    EXPECT_THAT(sink->lines(), IsEmpty());
}

TEST(LogHandlerRegistrationTest, SinkThatCannotBeMadeLeavesTheRegisteredOne) {
    ScratchDirectory const directory;
    std::string const path = directory.path("a path too long for a string to hold by itself");
    for (LogHandlerType const type : {FILE_HANDLER, PLATFORM_HANDLER, STANDARD_STREAM_HANDLER}) {
        Registration const registration(path);
        auto const sink = addRecordingSink(registration);
        auto const neighbour = std::make_shared<RecordingSink>();
        Registration const neighbours(neighbour);
        std::size_t const descriptors = openDescriptors();

        std::size_t failures = 0;
        for (bool isComplete = false; !isComplete;) {
            AllocationProbe allocations;
            allocations.failingAllocation = static_cast<int>(failures) + 1;
            try {
                addLogHandler(type, path.c_str());
                isComplete = true;
            } catch (std::bad_alloc const&) {
                allocations.failingAllocation = 0;
                ++failures;
                EXPECT_EQ(sink.use_count(), 2);
                EXPECT_EQ(openDescriptors(), descriptors);
                log(ERROR, "tag", "text");
                EXPECT_EQ(sink->lines().size(), failures);
                EXPECT_EQ(neighbour->lines().size(), failures);
            }
        }
        EXPECT_GE(failures, 2u);
        EXPECT_EQ(sink.use_count(), 1);
    }
}

TEST(LogHandlerRegistrationTest, SinkThatCannotBeMadeUnderANewNameLeavesLoggingAsItWas) {
    ScratchDirectory const directory;
    auto const neighbour = std::make_shared<RecordingSink>();
    Registration const neighbours(neighbour);
    CLibraryProbe probe;
    std::size_t failures = 0;
    for (bool isComplete = false; !isComplete;) {
        Registration const registration(directory.path("log " + std::to_string(failures)));
        AllocationProbe allocations;
        allocations.failingAllocation = static_cast<int>(failures) + 1;
        try {
            addLogHandler(FILE_HANDLER, registration.name());
            isComplete = true;
        } catch (std::bad_alloc const&) {
            allocations.failingAllocation = 0;
            ++failures;
            log(ERROR, "tag", "text");
            EXPECT_EQ(neighbour->lines().size(), failures);
            EXPECT_EQ(probe.systemLogCalls.size(), failures);
        }
    }
    EXPECT_GE(failures, 3u);
}

// How often a lack of memory, at each allocation in turn, loses what the file of a sink held.
int lossesOf(std::string const& path, std::function<void()> const& makeSink) {
    int losses = 0;
    int failures = 0;
    for (bool isComplete = false; !isComplete;) {
        writeFile(path, "earlier");
        AllocationProbe allocations;
        allocations.failingAllocation = ++failures;
        try {
            makeSink();
            isComplete = true;
        } catch (std::bad_alloc const&) {
            allocations.failingAllocation = 0;
            losses += contentOf(path) == "earlier" ? 0 : 1;
        }
    }
    EXPECT_GE(failures, 3);
    return losses;
}

TEST(LogHandlerRegistrationTest, EntryThatFindsNoMemoryLosesNoEarlierLog) {
    ScratchDirectory const directory;
    std::string const path = directory.path("a path too long for a string to hold by itself");
    int const lossesOfTheSink =
        lossesOf(path, [&] { createLogHandler(FILE_HANDLER, path.c_str()); });
    Registration const registration(path);
    EXPECT_EQ(lossesOf(path, [&] { addLogHandler(FILE_HANDLER, path.c_str()); }), lossesOfTheSink);
}

// --- use and release

TEST(LogHandlerRegistrationTest, LibrarysOwnCallsReachTheSinks) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    Registration const registration(path);
    addLogHandler(FILE_HANDLER, path.c_str());
    // Once its worker has run a task it logs nothing of its own any more.
    concurrent::getNoStarveTaskExecutor()
        ->submitTask([] { return concurrent::Executable::SUCCESS; }, concurrent::NORMAL, nullptr,
                     "task")
        ->waitForCompletion();
    EXPECT_EQ(contentOf(path), "");

    LevelKeeper const levelKeeper(INFO);
    CLibraryProbe probe;
    concurrent::getNoStarveTaskExecutor();
    char const line[] =
        "[TaskExecutors::getNoStarveTaskExecutor():INFO] "
        "NoStarveTaskExecutor Number of executor threads - 1";
    EXPECT_THAT(probe.systemLogLines(), ElementsAre(line));
    EXPECT_THAT(test::linesOf(contentOf(path)), ::testing::Contains(line));
}

// Notifies when it is destroyed.
class NotifyingSink : public LogHandler {
public:
    explicit NotifyingSink(char const* lastWord) : word(lastWord) {}
    ~NotifyingSink() override {
        EXPECT_EQ(write(STDERR_FILENO, word.data(), word.size()),
                  static_cast<ssize_t>(word.size()));
    }

    void handleLogMessage(char const*, LogLevel) override {}

private:
    std::string const word;
};

[[noreturn]] void exitWithRegisteredSinks() {
    addLogHandler(std::make_shared<NotifyingSink>("replaced;"), "sink");
    addLogHandler(std::make_shared<NotifyingSink>("released;"), "sink");
    char const word[] = "exiting;";
    if (write(STDERR_FILENO, word, sizeof word - 1) < 0) {
        std::abort();
    }
    std::exit(0);
}

TEST(LogHandlerRegistrationTest, RegisteredSinksAreReleasedAtExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithRegisteredSinks(), ::testing::ExitedWithCode(0),
                "replaced;exiting;released;$");
}

}  // namespace

}  // namespace ovra::log
