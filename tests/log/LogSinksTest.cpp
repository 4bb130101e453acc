#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
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

TEST(LogSinksTest, PlatformSinkNeedsNoRegistrationAndIsCalledOnce) {
    CLibraryProbe probe;
    log(ERROR, "tag", "text");
    ASSERT_EQ(probe.systemLogCalls.size(), 1u);
    EXPECT_EQ(probe.systemLogCalls[0].priority, LOG_ERR);
    EXPECT_EQ(probe.systemLogCalls[0].text, "[tag:ERROR] text");
}

TEST(LogSinksTest, PlatformSinkIsCalledBeforeTheRegisteredSinks) {
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

TEST(LogSinksTest, AllSinksShareOneLine) {
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

TEST(LogSinksTest, LevelReachesTheSinksUnchanged) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    LevelKeeper const levelKeeper(levelOf(INT_MAX));
    std::vector<LogLevel> sent;
    for (long long const level : {-1, 0, 1, 2, 3, 4, 5, 6, 7, INT_MAX, INT_MIN}) {
        sent.push_back(levelOf(level));
        log(sent.back(), "tag", "text");
    }
    std::vector<LogLevel> received;
    for (ovra::test::LogLine const& line : sink->lines()) {
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

TEST(LogSinksTest, SinksAreCalledInTheOrderOfTheRegistrysMap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(compareOrderOfCallsWithThatOfAMap(), ::testing::ExitedWithCode(0), "");
}

// --- sinks that throw

TEST(LogSinksTest, ThrowingSinkMakesTheRestMissThatMessageOnly) {
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

TEST(LogSinksTest, WhateverASinkThrowsIsDiscarded) {
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

TEST(LogSinksTest, PlatformSinkThatCannotLockMakesAllMissThatMessage) {
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

TEST(LogSinksTest, RegisteredSinkThatCannotLockIsSwallowedToo) {
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

TEST(LogSinksTest, SinkMayLogItself) {
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

TEST(LogSinksTest, ErrnoIsKept) {
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

TEST(LogSinksTest, FormatMayNameTheErrorOfTheCaller) {
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

}  // namespace

}  // namespace ovra::log
