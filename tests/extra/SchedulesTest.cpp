#include <ovra/extra/internal/Schedules.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ovra/extra/internal/Later.h>
#include <tests/fs/Allocations.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::extra {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using Time = Schedules::Time;

class SchedulesTest : public ovra::test::BoundedTest {
protected:
    static Schedules::Job job() { return std::make_shared<ScheduledJob>(); }
    static Time at(std::int64_t ms) { return Time(milliseconds(ms)); }

    Schedules schedules;
};

TEST_F(SchedulesTest, LaterSaturates) {
    EXPECT_EQ(later(at(5), milliseconds(7)), at(12));
    EXPECT_EQ(later(at(5), milliseconds(0)), at(5));
    EXPECT_EQ(later(at(5), milliseconds(-7)), at(5));
    EXPECT_EQ(later(at(5), milliseconds::min()), at(5));
    EXPECT_EQ(later(at(5), milliseconds::max()), Time::max());
    EXPECT_EQ(later(at(5), hours(24 * 365 * 293)), Time::max());
    EXPECT_EQ(later(at(0), hours(24 * 365 * 290)), Time(hours(24 * 365 * 290)));
    EXPECT_EQ(later(Time::max(), milliseconds(1)), Time::max());
    EXPECT_EQ(later(Time::max() - nanoseconds(1), milliseconds(1)), Time::max());
}

TEST_F(SchedulesTest, NothingIsDueAtFirst) {
    EXPECT_EQ(schedules.nextDue(), Time::max());
    EXPECT_EQ(schedules.remove(1), nullptr);
}

TEST_F(SchedulesTest, TakesWhatIsDueInOrderAndEqualTimesAsTheyWereAdded) {
    auto const first = job();
    EXPECT_EQ(schedules.add(at(20), milliseconds(0), job()), 1u);
    EXPECT_EQ(schedules.add(at(10), milliseconds(0), first), 2u);
    EXPECT_EQ(schedules.add(at(20), milliseconds(0), job()), 3u);
    EXPECT_EQ(schedules.add(at(15), milliseconds(0), job()), 4u);
    EXPECT_EQ(schedules.nextDue(), at(10));
    auto const due = schedules.takeDue(at(10));
    EXPECT_EQ(due.id, 2u);
    EXPECT_EQ(due.job, first);
    EXPECT_EQ(schedules.takeDue(at(30)).id, 4u);
    EXPECT_EQ(schedules.takeDue(at(30)).id, 1u);
    EXPECT_EQ(schedules.takeDue(at(30)).id, 3u);
    EXPECT_EQ(schedules.nextDue(), Time::max());
    EXPECT_EQ(schedules.remove(3), nullptr);  // Taken once and for all.
}

TEST_F(SchedulesTest, APeriodKeepsToItsGridAndSkipsWhatWasMissed) {
    auto const recurring = job();
    auto const id = schedules.add(at(100), milliseconds(100), recurring);
    struct Row {
        std::int64_t takenAt;
        std::int64_t next;
    };
    for (Row const row : {Row{100, 200}, Row{201, 300}, Row{399, 400}, Row{400, 500},
                          Row{1000, 1100}, Row{1299, 1300}}) {
        auto const due = schedules.takeDue(at(row.takenAt));
        EXPECT_EQ(due.id, id);
        EXPECT_EQ(due.job, recurring);
        EXPECT_EQ(schedules.nextDue(), at(row.next)) << row.takenAt;
    }
    EXPECT_EQ(schedules.remove(id), recurring);
    EXPECT_EQ(schedules.nextDue(), Time::max());
}

TEST_F(SchedulesTest, ATimeIsSkippedWhileTheLastTaskIsUnderWay) {
    auto const recurring = job();
    schedules.add(at(100), milliseconds(100), recurring);
    recurring->isUnderWay = true;
    EXPECT_EQ(schedules.takeDue(at(100)).job, nullptr);
    EXPECT_EQ(schedules.nextDue(), at(200));
    EXPECT_EQ(schedules.takeDue(at(200)).job, nullptr);
    recurring->isUnderWay = false;
    EXPECT_EQ(schedules.takeDue(at(300)).job, recurring);
}

TEST_F(SchedulesTest, FarTimesNeverOverflow) {
    auto const far = Time::max() - milliseconds(1);
    schedules.add(far, milliseconds(1000), job());
    EXPECT_EQ(schedules.nextDue(), far);
    schedules.takeDue(far);
    EXPECT_EQ(schedules.nextDue(), Time::max());
    schedules.add(Time::max(), milliseconds::max(), job());
    EXPECT_EQ(schedules.nextDue(), Time::max());
}

TEST_F(SchedulesTest, ALackOfMemoryChangesNothing) {
    schedules.add(at(5), milliseconds(0), job());
    {
        auto const added = job();
        fs::test::Allocations allocations;
        allocations.failAfter(0);
        EXPECT_THROW(schedules.add(at(1), milliseconds(0), added), std::bad_alloc);
        EXPECT_EQ(schedules.nextDue(), at(5));
        EXPECT_EQ(schedules.remove(2), nullptr);
        EXPECT_EQ(added.use_count(), 1);
    }
    EXPECT_EQ(schedules.add(at(1), milliseconds(1), job()), 2u);
    fs::test::Allocations allocations;
    allocations.failAfter(0);
    schedules.takeDue(at(1));
    schedules.takeDue(at(2));
    schedules.remove(2);
    schedules.takeDue(at(5));
    EXPECT_FALSE(allocations.hasFailed());
}

TEST_F(SchedulesTest, TenThousandSchedulesInOrder) {
    ovra::test::RandomSource random(ovra::test::runSeed());
    std::set<std::pair<Time, std::uint64_t>> expected;
    std::vector<Time> dues{Time()};
    for (int i = 0; i < 10000; ++i) {
        dues.push_back(at(random.below(5000)));
        expected.insert({dues.back(), schedules.add(dues.back(), milliseconds(0), job())});
    }
    for (int i = 0; i < 3000; ++i) {
        auto const id = random.below(10000) + 1;
        ASSERT_EQ(schedules.remove(id) != nullptr, expected.erase({dues[id], id}) == 1);
    }
    EXPECT_LT(expected.size(), 8000u);
    for (auto const& [due, id] : expected) {
        ASSERT_EQ(schedules.nextDue(), due);
        ASSERT_EQ(schedules.takeDue(at(5000)).id, id);
    }
    EXPECT_EQ(schedules.nextDue(), Time::max());
}

// Against a list that is searched from one end to the other.
TEST_F(SchedulesTest, RandomTraces) {
    struct Entry {
        Time due;
        std::int64_t period;
        std::uint64_t id;
        Schedules::Job job;
    };
    ovra::test::RandomSource random(ovra::test::runSeed());
    std::vector<Entry> model;
    std::uint64_t lastId = 0;
    std::int64_t now = 0;
    auto const first = [&] {
        return std::min_element(model.begin(), model.end(), [](Entry const& a, Entry const& b) {
            return std::make_pair(a.due, a.id) < std::make_pair(b.due, b.id);
        });
    };
    int const steps = ovra::test::scaled(20000);
    for (int step = 0; step < steps; ++step) {
        switch (random.below(4)) {
            case 0: {
                auto const added = job();
                added->isUnderWay = random.oneIn(3);
                auto const due = at(now + random.below(50));
                std::int64_t const period = random.oneIn(2) ? 0 : random.between(1, 30);
                model.push_back({due, period, ++lastId, added});
                ASSERT_EQ(schedules.add(due, milliseconds(period), added), lastId);
                break;
            }
            case 1: {
                std::uint64_t id = random.below(static_cast<std::uint32_t>(lastId) + 2);
                if (!model.empty() && !random.oneIn(4)) {
                    id = model[random.below(static_cast<std::uint32_t>(model.size()))].id;
                }
                auto const found = std::find_if(model.begin(), model.end(),
                                                [&](Entry const& entry) { return entry.id == id; });
                ASSERT_EQ(schedules.remove(id), found == model.end() ? nullptr : found->job);
                if (found != model.end()) {
                    model.erase(found);
                }
                break;
            }
            case 2:
                now += random.below(20);
                break;
            default:
                while (!model.empty() && first()->due <= at(now)) {
                    auto const entry = first();
                    auto const due = schedules.takeDue(at(now));
                    ASSERT_EQ(due.id, entry->id) << ovra::test::seedNote();
                    if (entry->period == 0) {
                        ASSERT_EQ(due.job, entry->job);
                        model.erase(entry);
                        continue;
                    }
                    ASSERT_EQ(due.job, entry->job->isUnderWay ? nullptr : entry->job);
                    while (entry->due <= at(now)) {
                        entry->due += milliseconds(entry->period);
                    }
                }
                break;
        }
        ASSERT_EQ(schedules.nextDue(), model.empty() ? Time::max() : first()->due)
            << ovra::test::seedNote();
    }
}

}  // namespace
}  // namespace ovra::extra
