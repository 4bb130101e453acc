#pragma once

#include <algorithm>
#include <cstdint>

#include <benchmarks/support/Clock.h>

namespace ovra::bench {

/// Work that takes a given time on a free core, and touches no memory.
class Spin {
public:
    explicit Spin(double microseconds)
        : rounds(static_cast<std::int64_t>(microseconds * roundsPerMicrosecond())) {}

    void operator()() const { turn(rounds); }

private:
    static void turn(std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            asm volatile("" : "+r"(i));
        }
    }

    // The best of some tries: whatever else runs can only slow a try down.
    static double roundsPerMicrosecond() {
        static double const found = [] {
            constexpr std::int64_t ROUNDS = 1000000;
            double best = 0;
            for (int i = 0; i < 10; ++i) {
                auto const begin = Clock::now();
                turn(ROUNDS);
                best = std::max(best, ROUNDS / (secondsBetween(begin, Clock::now()) * 1e6));
            }
            return best;
        }();
        return found;
    }

    std::int64_t rounds;
};

}  // namespace ovra::bench
