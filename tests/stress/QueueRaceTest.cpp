#include <gtest/gtest.h>
#include <tests/stress/QueueRace.h>
#include <tests/support/Bounded.h>

namespace ovra::concurrent::stress {
namespace {

TEST(QueueRaceTest, NothingIsLostAndEveryRankIsExact) {
    test::Watchdog const watchdog(test::deadlineSeconds() * 5);
    test::RandomSource seeds(test::runSeed());
    SCOPED_TRACE(test::seedNote());
    for (int round = 0; round < test::scaled(600); ++round) {
        std::uint64_t const seed = seeds.next();
        ASSERT_EQ(QueueRace(seed).run(), "") << "round " << round;
    }
}

}  // namespace
}  // namespace ovra::concurrent::stress
