// Ranks that change while a pick scans.

#include <cstdint>
#include <optional>
#include <vector>

#include <gtest/gtest.h>
#include <tests/concurrent/internal/Ranked.h>

namespace ovra::concurrent {
namespace {

TEST(RankedTasksScanTest, RankBehindTheScanHasBeenUpdated) {
    Ranked ranked(DOUBLES);
    auto const& older = ranked.add(20, 5);
    auto const& newer = ranked.add(10, 5);
    ranked->scanTo(1);  // The order of the older one.

    EXPECT_EQ(ranked->rankOf(newer), 10u);
    EXPECT_EQ(ranked->rankOf(older), 5u);
    ranked.pick();
    EXPECT_EQ(ranked->rankOf(newer), 10u) << "once";
}

TEST(RankedTasksScanTest, ChangeBehindTheScanIsNotComparedAndNotDoubled) {
    Ranked ranked(DOUBLES);
    ranked.add(20, 5);
    auto& newer = ranked.add(10, 1000);
    ranked->scanTo(1);
    ranked.setRank(newer, 1);
    EXPECT_EQ(ranked->rankOf(newer), 1u);

    EXPECT_EQ(ranked.pick(), 10) << "it was compared before";
    EXPECT_EQ(newer.rank, 1u);
}

TEST(RankedTasksScanTest, RaiseBehindTheScanComesTooLate) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        Ranked ranked(doubles);
        ranked.add(20, 5000);
        auto& newer = ranked.add(10, 1000);
        ranked->scanTo(1);
        ranked.setRank(newer, HIGHEST_RANK);
        ranked.setRank(newer, 6000);

        EXPECT_EQ(ranked.pick(), 20);
        EXPECT_EQ(ranked->rankOf(newer), 6000u);
        EXPECT_EQ(ranked.pick(), 10);
    }
}

TEST(RankedTasksScanTest, BestOfThoseChangedBehindTheScanIsRemembered) {
    Ranked ranked(KEEPS);
    std::vector<RankedEntry*> entries;
    ranked.add(50, 1);
    for (unsigned int const rank : {10000u, 30000u, 20000u}) {
        entries.push_back(&ranked.add(40 - static_cast<int>(rank / 10000), rank));
    }
    ranked->scanTo(1);
    for (auto* const entry : entries) {
        ranked.setRank(*entry, 1);
    }
    EXPECT_EQ(ranked.pick(), 37);
    EXPECT_EQ(ranked.pick(), 50) << "and forgotten";
}

TEST(RankedTasksScanTest, ChangeAheadOfTheScanIsCompared) {
    Ranked ranked(DOUBLES);
    auto& older = ranked.add(20, 5);
    ranked.add(10, 1000);
    ranked->scanTo(1);
    ranked.setRank(older, 5000);

    EXPECT_EQ(ranked.pick(), 20);
    EXPECT_EQ(older.rank, 10000u);
}

TEST(RankedTasksScanTest, ScanThatEndsWithoutAPickLeavesTheUpdatedRanks) {
    Ranked ranked(DOUBLES);
    auto const& older = ranked.add(20, 5);
    auto& changed = ranked.add(15, 5);
    auto const& newer = ranked.add(10, 5);
    for (unsigned int const rank : {10u, 20u, 40u}) {
        ranked.beginScan();
        ranked->scanTo(1);  // The order of the older one.
        ranked.setRank(changed, 7);
        EXPECT_EQ(ranked->rankOf(newer), rank);
        EXPECT_EQ(ranked->rankOf(changed), 7u);
        EXPECT_EQ(ranked->rankOf(older), 5u);
    }
    ranked.beginScan();
    EXPECT_EQ(ranked->rankOf(newer), 40u) << "passed, and not yet compared again";
    EXPECT_EQ(ranked->rankOf(changed), 7u);
    EXPECT_EQ(ranked.drain(), (std::vector<std::int32_t>{10, 20, 15}));
}

TEST(RankedTasksScanTest, NextScanMayBeginWhereTheLastOneEnded) {
    Ranked ranked(DOUBLES);
    auto const& newer = ranked.add(10, 5);
    ranked->scanTo(0);
    ranked->scanTo(0);
    EXPECT_EQ(ranked->rankOf(newer), 10u << 1) << "updated by each of two scans";
}

TEST(RankedTasksScanTest, TaskAddedAfterAScanWithoutAPickIsUpdatedByTheNext) {
    Ranked ranked(DOUBLES);
    ranked.add(20, 5);
    ranked->scanTo(0);
    auto const& newer = ranked.add(10, 7);
    EXPECT_EQ(ranked->rankOf(newer), 7u);

    ranked.beginScan();
    EXPECT_EQ(ranked->rankOf(newer), 7u);
    ranked->scanTo(0);
    EXPECT_EQ(ranked->rankOf(newer), 14u);
    EXPECT_EQ(ranked.pick(), 20) << "its rank was 10 when it was compared";
    EXPECT_EQ(ranked->rankOf(newer), 14u);
}

TEST(RankedTasksScanTest, ChangeAfterAScanWithoutAPickIsComparedAtTheNext) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        for (unsigned int const rank : {40u, 100u}) {
            Ranked ranked(doubles);
            ranked.add(20, 50);
            auto& newer = ranked.add(10, 1000);
            ranked->scanTo(1);
            ranked.setRank(newer, 2);
            ranked.setRank(newer, rank);
            ranked.beginScan();
            EXPECT_EQ(ranked.pick(), rank == 100u ? 10 : 20);
        }
    }
}

TEST(RankedTasksScanTest, ErasedTasksAreForgottenByAScanWithoutAPick) {
    Ranked ranked(KEEPS);
    ranked.add(20, 5);
    auto& newer = ranked.add(10, 1000);
    ranked->scanTo(1);
    ranked.setRank(newer, 1);
    ranked.eraseAll();

    ranked.add(15, 5);
    EXPECT_EQ(ranked.pick(), 15);
}

TEST(RankedTasksScanTest, PickTakesNothingUnlessItIsBetterThanWhatWasScanned) {
    Ranked ranked(DOUBLES);
    auto const& entry = ranked.add(10, 5);

    SortKey scanned;
    scanned.score = 15;
    scanned.order = 1;
    EXPECT_EQ(ranked.pick(scanned), std::nullopt);
    EXPECT_EQ(ranked->rankOf(entry), 10u) << "it was a pick all the same";
    scanned.score = 20;
    scanned.order = 2;
    EXPECT_EQ(ranked.pick(scanned), std::nullopt) << "equal, and later added";
    scanned.score = 30;
    scanned.order = 0;
    EXPECT_EQ(ranked.pick(scanned), 10) << "equal, and earlier added";
}

}  // namespace
}  // namespace ovra::concurrent
