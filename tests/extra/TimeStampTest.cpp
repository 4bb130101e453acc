#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <ovra/extra/internal/TimeStamp.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::extra {
namespace {

std::string stampOf(std::int64_t seconds, unsigned int milliseconds) {
    std::string text(TIME_STAMP_LENGTH + 1, '#');
    writeTimeStamp(&text[0], seconds, milliseconds);
    EXPECT_EQ(text.back(), '#');
    text.pop_back();
    return text;
}

TEST(TimeStampTest, WritesTheTimeInUtc) {
    struct Row {
        std::int64_t seconds;
        unsigned int milliseconds;
        char const* stamp;
    };
    for (Row const& row :
         {Row{0, 0, "1970-01-01T00:00:00.000Z "}, Row{1795278757, 236, "2026-11-21T16:32:37.236Z "},
          Row{951782399, 999, "2000-02-28T23:59:59.999Z "},
          Row{951782400, 1, "2000-02-29T00:00:00.001Z "},
          Row{951868800, 10, "2000-03-01T00:00:00.010Z "},
          Row{2147483648, 0, "2038-01-19T03:14:08.000Z "},
          Row{4107542400, 0, "2100-03-01T00:00:00.000Z "},
          Row{253402300799, 999, "9999-12-31T23:59:59.999Z "}}) {
        EXPECT_EQ(stampOf(row.seconds, row.milliseconds), row.stamp);
    }
}

// As the C library does, where its time has enough bits.
TEST(TimeStampTest, AgreesWithTheCLibraryOnEveryDay) {
    test::RandomSource random(test::runSeed());
    constexpr std::int64_t LAST = sizeof(std::time_t) == 8 ? 16725225600 : 2147483647;
    for (std::int64_t day = 0; day * 86400 <= LAST; ++day) {
        std::int64_t const seconds = std::min(LAST, day * 86400 + random.below(86400));
        auto const time = static_cast<std::time_t>(seconds);
        std::tm parts = {};
        gmtime_r(&time, &parts);
        char expected[64];
        std::snprintf(expected, sizeof expected, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ ",
                      parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                      parts.tm_min, parts.tm_sec, static_cast<int>(day % 1000));
        ASSERT_EQ(stampOf(seconds, static_cast<unsigned int>(day % 1000)), expected);
    }
}

TEST(TimeStampTest, WritesOneAfterTheOther) {
    test::RandomSource random(test::runSeed());
    TimeStamps stamps;
    std::int64_t seconds = 0;
    for (int round = 0; round < 100000; ++round) {
        if (random.oneIn(3)) {
            seconds = random.oneIn(100) ? std::int64_t{1} << 32 : seconds + random.below(3) - 1;
            seconds = seconds < 0 ? 0 : seconds;
        }
        unsigned int const milliseconds = random.below(1000);
        std::string text(TIME_STAMP_LENGTH, '#');
        stamps.write(&text[0], seconds, milliseconds);
        ASSERT_EQ(text, stampOf(seconds, milliseconds));
    }
}

// Forked again and again while a thread changes from one second to the next, all the time.
TEST(TimeStampTest, AForkedChildWritesTheTimeWhateverAnotherThreadWasWriting) {
    constexpr std::int64_t FROM = 951782399;  // All its digits change with the next second.
    TimeStamps stamps;
    std::atomic<std::int64_t> current{FROM};
    std::atomic<bool> isOver{false};
    std::thread writer([&] {
        char ignored[TIME_STAMP_LENGTH];
        while (!isOver) {
            current = current == FROM ? FROM + 1 : FROM;
            stamps.write(ignored, current, 0);
        }
    });
    int const rounds = test::scaled(300);
    int wrong = 0;
    for (int round = 0; round < rounds; ++round) {
        pid_t const child = fork();
        if (child == 0) {
            char stamp[TIME_STAMP_LENGTH];
            char expected[TIME_STAMP_LENGTH];
            // The second that the thread was changing to, or that from which it was changing.
            std::int64_t const next = current;
            std::int64_t const second = round % 2 == 0 ? next : 2 * FROM + 1 - next;
            stamps.write(stamp, second, 7);
            writeTimeStamp(expected, second, 7);
            _exit(std::memcmp(stamp, expected, TIME_STAMP_LENGTH) == 0 ? 0 : 1);
        }
        int status = 1;
        waitpid(child, &status, 0);
        wrong += status == 0 ? 0 : 1;
    }
    isOver = true;
    writer.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace ovra::extra
