#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/concurrent/internal/Ranked.h>
#include <tests/support/RandomSource.h>

namespace ovra::concurrent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// --- chains

TEST(RankedTasksTest, TasksOfOneRankShareAListAndComeOutInOrder) {
    Ranked ranked(KEEPS);
    auto const& first = ranked.add(30, 5);
    auto const& second = ranked.add(20, 5);
    auto const& third = ranked.add(10, 5);

    EXPECT_EQ(second.list, first.list);
    EXPECT_EQ(third.list, first.list);
    EXPECT_THAT(ranked.drain(), ElementsAre(30, 20, 10));
    EXPECT_TRUE(ranked->isEmpty());
}

TEST(RankedTasksTest, FourRanksInTurnNeedFourLists) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        Ranked ranked(doubles);
        std::vector<int> lists(4);
        int index = 1000;
        for (int round = 0; round < 20; ++round) {
            for (std::size_t i = 0; i < 4; ++i) {
                auto const& entry = ranked.add(index--, 10u << i);
                if (round == 0) {
                    lists[i] = entry.list;
                }
                ASSERT_EQ(entry.list, lists[i]);
            }
        }
        std::sort(lists.begin(), lists.end());
        EXPECT_EQ(std::unique(lists.begin(), lists.end()), lists.end());
    }
}

TEST(RankedTasksTest, TaskJoinsTheListWhereItFollowsTheLeastRank) {
    Ranked ranked(KEEPS);
    ranked.add(100, 10);
    auto const& high = ranked.add(99, 1000);
    auto const& low = ranked.add(98, 10);
    auto const& middle = ranked.add(97, 500);

    EXPECT_NE(low.list, high.list);
    EXPECT_EQ(middle.list, high.list);
    EXPECT_THAT(ranked.drain(), ElementsAre(99, 97, 100, 98));
}

TEST(RankedTasksTest, TaskWithTheLargerIndexAndRankGoesFirst) {
    Ranked ranked(KEEPS);
    auto const& second = ranked.add(20, 5);
    auto const& third = ranked.add(10, 5);
    auto const& first = ranked.add(30, 5);

    EXPECT_EQ(first.list, second.list);
    EXPECT_EQ(third.list, second.list);
    EXPECT_THAT(ranked.drain(), ElementsAre(30, 20, 10));
}

TEST(RankedTasksTest, TasksAddedOutOfTheirOrderFindTheirPlaceAmongTheLastEight) {
    for (int const overtakenBy : {1, 7, 8, 9}) {
        Ranked ranked(KEEPS);
        auto const& first = ranked.add(100, 5);
        std::vector<std::int32_t> expected = {100, 99};
        for (int i = 0; i < overtakenBy; ++i) {
            expected.push_back(98 - i);
            ranked.add(expected.back(), 5);
        }
        auto const& late = ranked.add(99, 5);

        EXPECT_EQ(late.list == first.list, overtakenBy <= 8) << overtakenBy;
        EXPECT_EQ(ranked.drain(), expected) << overtakenBy;
    }
}

TEST(RankedTasksTest, TaskInTheMiddleMustFitBothNeighbours) {
    Ranked ranked(KEEPS);
    ranked.add(100, 50);
    ranked.add(98, 40);
    auto const& fitting = ranked.add(99, 45);
    auto const& tooLow = ranked.add(97, 40);
    auto const& tooHigh = ranked.add(96, 41);

    EXPECT_EQ(tooLow.list, fitting.list);
    EXPECT_NE(tooHigh.list, fitting.list);
    auto const& belowItsSuccessor = ranked.add(101, 49);
    EXPECT_NE(belowItsSuccessor.list, fitting.list) << "the older one must have no smaller a rank";
    EXPECT_THAT(ranked.drain(), ElementsAre(101, 100, 99, 98, 96, 97));
}

TEST(RankedTasksTest, EqualScoresGoToTheLaterAdded) {
    Ranked ranked(KEEPS);
    ranked.add(100, 1);
    ranked.add(99, 2);
    ranked.add(98, 3);
    EXPECT_THAT(ranked.drain(), ElementsAre(98, 99, 100));
}

// --- sums of both signs

TEST(RankedTasksTest, NegativeSumsComeBeforeAllOthers) {
    Ranked ranked(KEEPS);
    for (std::int32_t const index : {-998, -999, -1000, -1001, -1002}) {
        ranked.add(index, 1000);
    }

    // The scores 2, 1, 0, 2^32 - 1 and 2^32 - 2. A score of 0 is never chosen.
    EXPECT_THAT(ranked.drain(), ElementsAre(-1001, -1002, -998, -999));
    EXPECT_FALSE(ranked->isEmpty());
}

TEST(RankedTasksTest, SumsCrossZeroAsRanksDouble) {
    Ranked ranked(DOUBLES);
    for (std::int32_t const index : {-1100, -1500, -2500, -5000}) {
        ranked.add(index, 1000);
    }

    // The sums are -100, -500, -1500, -4000; then 500, -500, -3000; then 1500, -1000.
    EXPECT_THAT(ranked.drain(), ElementsAre(-1100, -2500, -5000, -1500));
}

TEST(RankedTasksTest, FirstNegativeSumMayBePutInOrTakenOut) {
    Ranked ranked(KEEPS);
    ranked.add(-10, 20);
    auto& first = ranked.add(-30, 20);
    ranked.add(-50, 20);
    ranked.add(-25, 20);  // Out of order, before the first that is negative.

    EXPECT_EQ(ranked.pick(), -25);
    EXPECT_EQ(ranked.take(first), -30);
    EXPECT_THAT(ranked.drain(), ElementsAre(-50, -10));
}

TEST(RankedTasksTest, OldIndexIsTheSmallestAfterTheWrap) {
    Ranked ranked(KEEPS);
    ranked.add(INT32_MIN + 1, 5);
    ranked.add(INT32_MIN, 5);
    ranked.add(INT32_MAX, 5);
    ranked.add(INT32_MAX - 1, 5);

    // Scores: 2^31 + 6, 2^31 + 5, 2^31 + 4, 2^31 + 3.
    EXPECT_THAT(ranked.drain(), ElementsAre(INT32_MIN + 1, INT32_MIN, INT32_MAX, INT32_MAX - 1));
}

// --- what fits nowhere

TEST(RankedTasksTest, FinalRankThatFitsNowhereIsSortedAndAnotherWaits) {
    Ranked keeping(KEEPS);
    fillLists(keeping);
    auto const kept = Ranked::make(900, 5000);
    EXPECT_EQ(allocationsOf([&] { keeping.insert(kept); }), 1);

    Ranked doubling(DOUBLES);
    fillLists(doubling);
    auto const waits = Ranked::make(900, 5000);
    auto const doubled = Ranked::make(899, HIGHEST_RANK);
    EXPECT_EQ(allocationsOf([&] { doubling.insert(waits); }), 0);
    EXPECT_EQ(allocationsOf([&] { doubling.insert(doubled); }), 1);

    EXPECT_EQ(doubled->rankedEntry().list, kept->rankedEntry().list);
    EXPECT_NE(waits->rankedEntry().list, kept->rankedEntry().list);
    EXPECT_THAT(keeping.drain(), ElementsAre(900, 997, 998, 999, 1000));
    EXPECT_THAT(doubling.drain(), ElementsAre(899, 900, 997, 998, 999, 1000));
}

TEST(RankedTasksTest, TaskThatWaitsIsSortedWhenItsRankIsFinal) {
    Ranked ranked(DOUBLES);
    fillLists(ranked);
    ranked.add(900, 0x20000000);
    ranked.add(899, 0x20000001);
    auto const& first = ranked.add(898, 0x10000000);
    int const waiting = first.list;
    ranked.add(897, 0x70000000);
    ranked.add(896, 0x70000001);

    EXPECT_EQ(ranked.pick(), 896);
    EXPECT_EQ(ranked.pick(), 897);
    EXPECT_EQ(first.list, waiting);
    EXPECT_EQ(ranked.pick(), 900) << "both are of the highest rank";
    EXPECT_EQ(first.list, waiting);
    EXPECT_EQ(ranked.pick(), 899);
    EXPECT_NE(first.list, waiting);
    EXPECT_THAT(ranked.drain(), ElementsAre(898, 997, 998, 999, 1000));
}

TEST(RankedTasksTest, ShortMemoryChangesNoOrder) {
    Ranked ranked(KEEPS);
    fillLists(ranked);
    auto const waits = Ranked::make(900, 5000);
    auto const& entry = waits->rankedEntry();
    EXPECT_EQ(allocationsOf([&] { ranked.insert(waits); }, true), 1);
    ranked.add(899, 6000);
    std::optional<std::int32_t> picked;
    int const list = entry.list;

    EXPECT_EQ(allocationsOf([&] { picked = ranked.pick(); }, true), 1) << "tried again";
    EXPECT_EQ(picked, 899);
    EXPECT_EQ(entry.list, list);
    ranked.add(898, 7000);
    EXPECT_EQ(allocationsOf([&] { picked = ranked.pick(); }), 1);
    EXPECT_EQ(picked, 898);
    EXPECT_NE(entry.list, list);
    EXPECT_THAT(ranked.drain(), ElementsAre(900, 997, 998, 999, 1000));
}

// --- ranks

TEST(RankedTasksTest, RankIsKeptOrDoubledAtEachPickUpToTheHighest) {
    Ranked keeping(KEEPS);
    auto const& kept = keeping.add(10, 1000);
    keeping.add(11, 5000);
    keeping.pick();
    EXPECT_EQ(keeping->rankOf(kept), 1000u);

    Ranked doubling(DOUBLES);
    auto const& doubled = doubling.add(10, 3);
    std::uint64_t expected = 3;
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(doubling->rankOf(doubled), expected);
        doubling.add(100 - i, HIGHEST_RANK);
        doubling.pick();
        expected = std::min<std::uint64_t>(expected * 2, HIGHEST_RANK);
    }
}

TEST(RankedTasksTest, PickedTaskKeepsTheRankThatThePickGaveIt) {
    Ranked ranked(DOUBLES);
    auto const& entry = ranked.add(10, 7);
    ranked.pick();

    EXPECT_EQ(entry.rank, 14u);
    EXPECT_EQ(ranked->rankOf(entry), 14u);
    EXPECT_FALSE(entry.isComputed());
    EXPECT_EQ(entry.task, nullptr);
}

TEST(RankedTasksTest, NewRankCountsFromWhenItIsGiven) {
    Ranked ranked(DOUBLES);
    auto& entry = ranked.add(10, 1);
    for (int i = 0; i < 5; ++i) {
        ranked.add(100 - i, HIGHEST_RANK);
        ranked.pick();
    }
    EXPECT_EQ(ranked->rankOf(entry), 32u);

    EXPECT_TRUE(ranked.setRank(entry, 3));
    EXPECT_EQ(ranked->rankOf(entry), 3u);
    ranked.add(50, HIGHEST_RANK);
    ranked.pick();
    EXPECT_EQ(ranked->rankOf(entry), 6u);
}

TEST(RankedTasksTest, NewRankReordersWhateverTheListOfTheTask) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        for (unsigned int const rank : {1u, 15u, 5000u, HIGHEST_RANK}) {
            for (std::size_t i = 0; i < 6; ++i) {
                Ranked ranked(doubles);
                fillLists(ranked);
                ranked.add(900, 100000);
                ranked.add(800, HIGHEST_RANK);
                auto const changed = ranked.owned[i];
                EXPECT_TRUE(ranked.setRank(changed->rankedEntry(), rank));
                auto const first = *std::max_element(
                    ranked.owned.begin(), ranked.owned.end(), [](auto& left, auto& right) {
                        auto const score = [](auto& task) {
                            return task->getRank() +
                                   static_cast<unsigned int>(task->getUniqueIndex());
                        };
                        return score(left) < score(right);
                    });
                ASSERT_EQ(ranked.pick(), first->getUniqueIndex()) << i << " to " << rank;
                ASSERT_EQ(ranked.drain().size(), 5u);
            }
        }
    }
}

TEST(RankedTasksTest, TaskWhosePriorityIsBeingChangedIsLeftToTheScan) {
    Ranked ranked(DOUBLES);
    auto const task = Ranked::make(10, 7);
    RankedEntry& entry = task->rankedEntry();
    ++entry.priorityChanges;
    ranked.insert(task);
    EXPECT_TRUE(ranked->isEmpty());
    EXPECT_FALSE(entry.isComputed());
    EXPECT_EQ(entry.rank, 7u);
}

TEST(RankedTasksTest, TaskThatIsNotHereGetsNoRank) {
    Ranked ranked(KEEPS);
    auto& entry = ranked.add(10, 7);
    ranked.pick();
    TaskPriority const priority = HIGH;

    EXPECT_FALSE(ranked->setRank(entry, 9, &priority));
    EXPECT_EQ(entry.rank, 7u);
    EXPECT_EQ(entry.priority, LOW);
}

// --- out

// As indices wrap, two tasks can have one index: the second is made 4294967296 tasks later.
TEST(RankedTasksTest, OfTwoTasksWithOneIndexAndRankTheOneAddedLaterIsTaken) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        Ranked ranked(doubles);
        ranked.add(10, 5);
        ranked.add(10, 5);
        std::shared_ptr<SubmittedTask> picked;

        ranked->pick(SortKey(), picked);

        EXPECT_EQ(picked, ranked.owned[1]);
    }
}

TEST(RankedTasksTest, TaskThatTheScanFoundIsTakenWhereverItStands) {
    for (bool const doubles : {KEEPS, DOUBLES}) {
        for (std::size_t i = 0; i < 6; ++i) {
            Ranked ranked(doubles);
            fillLists(ranked);
            ranked.add(900, 100000);
            ranked.add(800, HIGHEST_RANK);
            auto const task = ranked.owned[i];
            std::uint64_t const rank = std::uint64_t{task->getRank()} << (doubles ? 1 : 0);

            EXPECT_EQ(ranked.take(task->rankedEntry()), task->getUniqueIndex());

            EXPECT_FALSE(task->rankedEntry().isComputed());
            EXPECT_EQ(task->getRank(), std::min<std::uint64_t>(rank, HIGHEST_RANK));
            EXPECT_EQ(ranked.drain().size(), 5u);
            EXPECT_TRUE(ranked->isEmpty());
        }
    }
}

TEST(RankedTasksTest, TaskOfAnotherContainerIsNotTaken) {
    Ranked ranked(KEEPS);
    Ranked other(KEEPS);
    other.add(20, 5);
    auto& entry = ranked.add(10, 5);

    EXPECT_EQ(other.take(entry), std::nullopt);
    EXPECT_THAT(other.drain(), ElementsAre(20));
    EXPECT_THAT(ranked.drain(), ElementsAre(10));
}

TEST(RankedTasksTest, ErasingAllLeavesThemLinkedWithTheirRanks) {
    Ranked ranked(DOUBLES);
    fillLists(ranked);
    ranked.add(901, 100);
    ranked.add(900, 100000);
    ranked.add(800, HIGHEST_RANK);
    ranked.add(799, HIGHEST_RANK);
    ranked.pick();
    RankedEntry* first = nullptr;

    EXPECT_EQ(allocationsOf([&] { first = ranked->eraseAll(); }, true), 0);

    std::vector<std::int32_t> erased;
    for (auto* entry = first; entry != nullptr; entry = entry->next) {
        EXPECT_NE(entry->task, nullptr);
        EXPECT_FALSE(entry->isComputed());
        entry->task = nullptr;
        erased.push_back(entry->index);
    }
    EXPECT_THAT(erased, ::testing::UnorderedElementsAre(1000, 999, 998, 997, 901, 900, 799));
    EXPECT_TRUE(ranked->isEmpty());
    EXPECT_EQ(ranked.owned[0]->getRank(), 20u);
    EXPECT_EQ(ranked.owned[4]->getRank(), 200u);
    EXPECT_EQ(ranked.owned[7]->getRank(), HIGHEST_RANK);
    EXPECT_THAT(ranked.drain(), IsEmpty());
    ranked.add(10, 5);
    EXPECT_THAT(ranked.drain(), ElementsAre(10));
}

// --- all of it, against the rule

TEST(RankedTasksTest, AgreesWithTheRuleOnRandomTasksAroundZero) {
    SCOPED_TRACE(test::seedNote());
    test::RandomSource random(test::runSeed());
    for (int round = 0; round < 300; ++round) {
        Ranked ranked(round % 2 == 0 ? KEEPS : DOUBLES);
        std::vector<RankedEntry*> queued;  // Oldest first.
        std::int32_t index = random.between(-30, 60) * static_cast<int>(1u << random.below(20));
        for (int step = 0; step < 120; ++step) {
            std::uint32_t const dice = random.below(4);
            unsigned int const rank = random.oneIn(2)
                                          ? 1 + random.below(100)
                                          : 1 + (random.word() >> (1 + random.below(31)));
            if (dice < 2 || queued.empty()) {
                int const swapped = random.oneIn(5) ? random.between(1, 3) : 0;
                queued.push_back(&ranked.add(index + swapped * 1000, std::min(rank, HIGHEST_RANK)));
                index -= random.between(1, 40);
            } else if (dice == 2) {
                auto* const entry = queued[random.below(static_cast<std::uint32_t>(queued.size()))];
                ranked.setRank(*entry, std::min(rank, HIGHEST_RANK));
            } else {
                RankedEntry const* best = nullptr;
                unsigned int bestScore = 0;
                for (auto newest = queued.rbegin(); newest != queued.rend(); ++newest) {
                    unsigned int const score =
                        ranked->rankOf(**newest) + static_cast<unsigned int>((*newest)->index);
                    if (score > bestScore) {
                        bestScore = score;
                        best = *newest;
                    }
                }
                auto const picked = ranked.pick();
                ASSERT_EQ(picked.has_value(), best != nullptr) << "round " << round;
                if (picked) {
                    ASSERT_EQ(*picked, best->index) << "round " << round;
                    queued.erase(std::find(queued.begin(), queued.end(), best));
                }
            }
        }
    }
}

}  // namespace
}  // namespace ovra::concurrent
