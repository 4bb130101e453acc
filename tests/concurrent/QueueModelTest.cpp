// A queue against a model of it, on long random traces, early and late in the life of a process.
//
// The queue must agree with the model on every pick, on the rank of every task after every
// operation, and on every call of a strategy or an overridden operation, in order.
//
//   OVRA_TEST_SEED              another trace: a number, or "random"
//   OVRA_TEST_MODEL_OPERATIONS  operations in all, over every kind of trace and every start

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <tests/concurrent/QueueTrace.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

#ifdef OVRA_TEST_PRIVATE_OBJECTS
#include <ovra/concurrent/internal/UniqueIndex.h>
#include <tests/support/ThreadCalls.h>
#endif

namespace ovra::concurrent::model {
namespace {

std::vector<Profile> profiles() {
    std::vector<Profile> all = {
        {"Keeping", {KEEPING}, 0, 8, false},
        {"KeepingSeldomRead", {KEEPING}, 0, 40, true},
        {"KeepingLarge", {KEEPING}, 0, 2000, true},
        {"KeepingOdd", {KEEPING}, 3, 12, false},
        {"Doubling", {DOUBLING}, 0, 8, false},
        {"DoublingMedium", {DOUBLING}, 0, 60, false},
        {"DoublingSeldomRead", {DOUBLING}, 0, 40, true},
        {"DoublingLarge", {DOUBLING}, 0, 2000, true},
        {"DoublingOdd", {DOUBLING}, 3, 12, false},
        {"DoublingFewOdd", {DOUBLING}, 40, 60, true},
        {"DoublingLargeFewOdd", {DOUBLING}, 100, 500, true},
        {"NoStrategy", {NO_STRATEGY}, 4, 12, false},
        {"DerivedKeeping", {DERIVED_KEEPING}, 4, 12, false},
        {"DerivedDoubling", {DERIVED_DOUBLING}, 4, 12, false},
        {"Scripted", {SCRIPTED}, 4, 12, false},
        {"ScriptedPlain", {SCRIPTED}, 0, 30, false},
        {"Shared", {KEEPING, DOUBLING}, 0, 12, false},
        {"SharedByTwoThatDouble", {DOUBLING, DOUBLING}, 0, 12, false},
        {"SharedOdd", {DOUBLING, KEEPING}, 4, 12, false},
        {"SharedSeldomRead", {DOUBLING, DOUBLING, KEEPING}, 10, 20, true},
        {"SharedByAll",
         {KEEPING, DOUBLING, NO_STRATEGY, DERIVED_KEEPING, DERIVED_DOUBLING, SCRIPTED},
         5,
         30,
         false},
        {"SharedByAllLarge", {KEEPING, DOUBLING, SCRIPTED, DOUBLING}, 50, 600, true},
    };
    return all;
}

// The unique index before the first of a trace.
struct Start {
    char const* name;
    std::int32_t index;
};

void PrintTo(Start const& start, std::ostream* out) {
    *out << start.name;
}

#ifdef OVRA_TEST_PRIVATE_OBJECTS
constexpr Start STARTS[] = {
    {"AtTheStart", 0x7fffffff}, {"AroundZero", 300},   {"WhereNormalRanksReachZero", -700},
    {"Negative", -0x40000000},  {"Late", -0x7f000000}, {"AtTheWrap", INT32_MIN + 50},
};

void startAt(std::int32_t index) {
    s_uniqueIndexCounter = index;
}

// All allocations from the nth on.
void failAllocations(int nth) {
    static std::unique_ptr<test::ThreadCalls> calls;
    calls.reset();
    if (nth != 0) {
        calls = std::make_unique<test::ThreadCalls>();
        calls->onAllocate = [left = nth](std::size_t) mutable { return --left <= 0; };
        calls->install();
    }
}
FailAllocations const memory = failAllocations;
#else
// The shared object hides its counter.
constexpr Start STARTS[] = {{"AsItComes", 0}};

void startAt(std::int32_t) {}

FailAllocations const memory;
#endif

class QueueModelTest : public ::testing::Test,
                       public ::testing::WithParamInterface<std::tuple<Profile, Start>> {
private:
    test::Watchdog watchdog{test::deadlineSeconds() * 20};
};

TEST_P(QueueModelTest, AgreesOnEveryPickEveryRankAndEveryCall) {
    auto const [profile, start] = GetParam();
    auto const operations = static_cast<int>(test::environmentNumber(
        "OVRA_TEST_MODEL_OPERATIONS", test::scaled(70000 * static_cast<int>(std::size(STARTS)))));
    auto const kinds = profiles().size() * std::size(STARTS);
    int const share = std::max(operations / static_cast<int>(kinds), 100);

    // Several short traces differ more than one long one.
    std::uint64_t seed = test::runSeed() + static_cast<std::uint32_t>(start.index);
    for (char const* letter = profile.name; *letter != '\0'; ++letter) {
        seed = seed * 31 + static_cast<unsigned char>(*letter);
    }
    RandomSource seeds(seed);
    int const length = profile.usualSize >= 500 ? 20000 : 800;
    SCOPED_TRACE(test::seedNote());
    for (int done = 0; done < share && !HasFailure();) {
        startAt(start.index);
        RandomSource random(seeds.next());
        Trace<RandomSource> trace(profile, random, memory);
        for (int end = std::min(share, done + length); done < end && !HasFailure(); ++done) {
            trace.advance();
        }
        if (!HasFailure()) {
            trace.drain();
        }
    }
}

std::string nameOf(::testing::TestParamInfo<std::tuple<Profile, Start>> const& parameter) {
    return std::string(std::get<Profile>(parameter.param).name) +
           std::get<Start>(parameter.param).name;
}

INSTANTIATE_TEST_SUITE_P(Traces, QueueModelTest,
                         ::testing::Combine(::testing::ValuesIn(profiles()),
                                            ::testing::ValuesIn(STARTS)),
                         nameOf);

}  // namespace
}  // namespace ovra::concurrent::model
