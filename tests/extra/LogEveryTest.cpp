#include <ovra/extra/LogEvery.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <limits>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>
#include <tests/support/SteadyClock.h>

// Of shared objects of their own, which contain the same inline function; see LogEveryPlace.cpp.
extern "C" {
void logEveryPlace_default_1();
void logEveryPlace_default_2();
void logEveryPlace_hidden_1();
void logEveryPlace_hidden_2();
}

namespace ovra::extra {
namespace {

using ovra::test::clockMs;
using ovra::test::RecordingSink;
using test::Gate;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogEveryTest : public test::BoundedTest {
protected:
    LogEveryTest() { clockMs = 5000; }
    ~LogEveryTest() override { clockMs = -1; }

    std::vector<std::string> taken() {
        auto texts = sink->texts();
        texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(seen));
        seen += texts.size();
        return texts;
    }

    ovra::test::LevelKeeper const keeper{log::INFO};
    std::shared_ptr<RecordingSink> const sink = std::make_shared<RecordingSink>();
    ovra::test::Registration const registration{sink};
    std::size_t seen = 0;
};

TEST_F(LogEveryTest, LogsTheFirstLineAtOnceAndThenOneInAPeriod) {
    auto const line = [](int number) {
        OVRA_LOG_EVERY(100, log::WARNING, "tag", "line %d of %s", number, "many");
    };
    line(1);
    EXPECT_THAT(taken(), ElementsAre("[tag:WARNING] line 1 of many"));
    line(2);
    clockMs += 99;
    line(3);
    EXPECT_THAT(taken(), IsEmpty());
    clockMs += 1;
    line(4);
    EXPECT_THAT(taken(), ElementsAre("[tag:WARNING] line 4 of many (and 2 more like it)"));
    line(5);
    clockMs += 100;
    line(6);
    EXPECT_THAT(taken(), ElementsAre("[tag:WARNING] line 6 of many (and 1 more like it)"));
    clockMs += 1000;
    line(7);
    EXPECT_THAT(taken(), ElementsAre("[tag:WARNING] line 7 of many"));
}

TEST_F(LogEveryTest, CountsEachPlaceByItself) {
    for (int round = 0; round < 3; ++round) {
        OVRA_LOG_EVERY(100, log::WARNING, "tag", "here");
        OVRA_LOG_EVERY(100, log::WARNING, "tag", "there");
    }
    EXPECT_THAT(taken(), ElementsAre("[tag:WARNING] here", "[tag:WARNING] there"));
}

template <int NUMBER>
void logFromTemplate() {
    OVRA_LOG_EVERY(100, log::INFO, "tag", "template %d", NUMBER);
}

TEST_F(LogEveryTest, CountsEachInstantiationOfATemplateByItself) {
    for (int round = 0; round < 2; ++round) {
        logFromTemplate<1>();
        logFromTemplate<2>();
    }
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] template 1", "[tag:INFO] template 2"));
}

TEST_F(LogEveryTest, CountsAnInlineFunctionOnceUnlessItsVisibilityIsHidden) {
    logEveryPlace_default_1();
    logEveryPlace_default_2();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] inline"));
    logEveryPlace_hidden_1();
    logEveryPlace_hidden_2();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] inline", "[tag:INFO] inline"));
}

TEST_F(LogEveryTest, IgnoresLinesThatTheGlobalLevelDrops) {
    auto const line = [] { OVRA_LOG_EVERY(100, log::INFO, "tag", "a line"); };
    for (log::LogLevel const level : {log::WARNING, log::DISABLED}) {
        log::setLogLevel(level);
        line();
    }
    log::setLogLevel(log::INFO);
    line();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] a line"));
    log::setLogLevel(log::WARNING);
    line();
    clockMs += 100;
    line();
    log::setLogLevel(log::INFO);
    line();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] a line"));
    auto const always = [] { OVRA_LOG_EVERY(100, log::DISABLED, "tag", "of level 0"); };
    always();
    EXPECT_THAT(taken(), ElementsAre("[tag:DISABLED] of level 0"));
}

TEST_F(LogEveryTest, HoldsNothingBackInNoTimeAndEverythingInTheLongest) {
    for (std::int64_t const none :
         {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
        LogEvery place;
        for (int round = 0; round < 3; ++round) {
            place.log(none, log::INFO, "tag", "a line");
        }
        EXPECT_EQ(taken().size(), 3u) << none;
    }
    for (std::int64_t const longest :
         {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max() / 2,
          std::numeric_limits<std::int64_t>::max() / 2 - 1}) {
        LogEvery place;
        place.log(longest, log::INFO, "tag", "a line");
        clockMs += 1000000;
        place.log(longest, log::INFO, "tag", "a line");
        EXPECT_EQ(taken().size(), 1u) << longest;
    }
}

TEST_F(LogEveryTest, KeepsThePercentSignsThatLogKeeps) {
    auto const line = [] { OVRA_LOG_EVERY(100, log::INFO, "tag", "100 %% of %s", "50 %d"); };
    line();
    line();
    clockMs += 100;
    line();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] 100 % of 50 %d",
                                     "[tag:INFO] 100 % of 50 %d (and 1 more like it)"));
}

TEST_F(LogEveryTest, IsAStatementThatEvaluatesItsArgumentsOnceAndKeepsErrno) {
    int evaluated = 0;
    errno = EXDEV;
    for (int round = 0; round < 2; ++round)
        if (round >= 0)
            OVRA_LOG_EVERY(100, log::INFO, "tag", "%d", ++evaluated);
        else
            ++evaluated;
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(evaluated, 2);
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] 1"));
}

TEST_F(LogEveryTest, AMessageThatCannotBeFormattedLosesNoCount) {
    constexpr std::wint_t NO_CHARACTER = 0xd800;
    LogEvery place;
    auto const line = [&] { place.log(100, log::INFO, "tag", "a line"); };
    line();
    line();
    line();
    clockMs += 100;
    place.log(100, log::INFO, "tag", "%lc", NO_CHARACTER);
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] a line"));
    line();
    clockMs += 100;
    line();
    EXPECT_THAT(taken(), ElementsAre("[tag:INFO] a line (and 3 more like it)"));
}

TEST_F(LogEveryTest, OneOfEightThreadsLogsAndTheOthersAreCounted) {
    constexpr int THREADS = 8;
    int const linesEach = test::scaled(1000);
    LogEvery place;
    for (int period = 0; period < 5; ++period) {
        Gate start;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([&] {
                start.wait();
                for (int line = 0; line < linesEach; ++line) {
                    place.log(100, log::INFO, "tag", "a line");
                }
            });
        }
        start.open();
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::string const suffix =
            period == 0 ? ""
                        : " (and " + std::to_string(THREADS * linesEach - 1) + " more like it)";
        EXPECT_THAT(taken(), ElementsAre("[tag:INFO] a line" + suffix)) << period;
        clockMs += 100;
    }
}

TEST_F(LogEveryTest, LosesNoCountWhileTheClockGoesOn) {
    constexpr int THREADS = 8;
    int const linesEach = test::scaled(10000);
    LogEvery place;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&] {
            for (int line = 0; line < linesEach; ++line) {
                place.log(10, log::INFO, "tag", "a line");
                ++clockMs;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // What a thread was about to count when its period ended is counted with the one after the
    // next.
    for (int last = 0; last < 2; ++last) {
        clockMs += 10;
        place.log(10, log::INFO, "tag", "a line");
    }
    long counted = 0;
    auto const texts = taken();
    for (std::string const& text : texts) {
        long held = 0;
        std::sscanf(text.c_str(), "[tag:INFO] a line (and %ld more like it)", &held);
        counted += 1 + held;
    }
    EXPECT_EQ(counted, THREADS * long{linesEach} + 2);
    EXPECT_GT(texts.size(), 3u);
}

}  // namespace
}  // namespace ovra::extra
