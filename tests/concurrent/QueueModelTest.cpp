// A queue against a model of it, on long random traces.
//
// The queue must agree with the model on every pick, on the rank of every task after every
// operation, and on every call of a strategy or an overridden operation, in order.
//
//   OVRA_TEST_SEED              another trace: a number, or "random"
//   OVRA_TEST_MODEL_OPERATIONS  operations in all, over every kind of trace

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tests/concurrent/QueueTrace.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

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
        {"NoStrategy", {NO_STRATEGY}, 4, 12, false},
        {"DerivedKeeping", {DERIVED_KEEPING}, 4, 12, false},
        {"DerivedDoubling", {DERIVED_DOUBLING}, 4, 12, false},
        {"Scripted", {SCRIPTED}, 4, 12, false},
        {"ScriptedPlain", {SCRIPTED}, 0, 30, false},
        {"Shared", {KEEPING, DOUBLING}, 0, 12, false},
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

class QueueModelTest : public test::BoundedTest, public ::testing::WithParamInterface<Profile> {};

TEST_P(QueueModelTest, AgreesOnEveryPickEveryRankAndEveryCall) {
    auto const all = profiles();
    auto const operations = static_cast<int>(
        test::environmentNumber("OVRA_TEST_MODEL_OPERATIONS", test::scaled(150000)));
    int const share = std::max(operations / static_cast<int>(all.size()), 100);

    // Several short traces differ more than one long one.
    std::uint64_t seed = test::runSeed();
    for (char const* letter = GetParam().name; *letter != '\0'; ++letter) {
        seed = seed * 31 + static_cast<unsigned char>(*letter);
    }
    RandomSource seeds(seed);
    int const traces = GetParam().usualSize >= 500 ? 1 : 10;
    SCOPED_TRACE(test::seedNote());
    for (int i = 0; i < traces && !HasFailure(); ++i) {
        RandomSource random(seeds.next());
        Trace<RandomSource> trace(GetParam(), random);
        for (int done = 0; done < share / traces && !HasFailure(); ++done) {
            trace.advance();
        }
        if (!HasFailure()) {
            trace.drain();
        }
    }
}

std::string nameOfProfile(::testing::TestParamInfo<Profile> const& parameter) {
    return parameter.param.name;
}

INSTANTIATE_TEST_SUITE_P(Traces, QueueModelTest, ::testing::ValuesIn(profiles()), nameOfProfile);

}  // namespace
}  // namespace ovra::concurrent::model
