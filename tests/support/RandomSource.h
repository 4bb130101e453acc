#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace ovra::test {

/// Reproducible random numbers, the same on every platform.
class RandomSource {
public:
    explicit RandomSource(std::uint64_t seed) : state(seed) {}

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15u;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
        return mixed ^ (mixed >> 31);
    }
    std::uint32_t word() { return static_cast<std::uint32_t>(next() >> 32); }
    /// From 0 up to, but without, `limit`.
    std::uint32_t below(std::uint32_t limit) {
        return static_cast<std::uint32_t>((std::uint64_t{word()} * limit) >> 32);
    }
    /// From `first` to `last`.
    int between(int first, int last) {
        return first + static_cast<int>(below(static_cast<std::uint32_t>(last - first + 1)));
    }
    bool oneIn(std::uint32_t chances) { return below(chances) == 0; }

private:
    std::uint64_t state;
};

/// The seed of this run: OVRA_TEST_SEED, a number or "random"; by default always the same.
inline std::uint64_t runSeed() {
    static std::uint64_t const seed = [] {
        char const* const text = std::getenv("OVRA_TEST_SEED");
        if (text == nullptr || *text == '\0') {
            return std::uint64_t{20240229};
        }
        if (std::string(text) == "random") {
            std::random_device device;
            return (std::uint64_t{device()} << 32) | device();
        }
        return std::uint64_t{std::strtoull(text, nullptr, 0)};
    }();
    return seed;
}

/// What to print with a failure so that it can be repeated.
inline std::string seedNote() {
    return "repeat with OVRA_TEST_SEED=" + std::to_string(runSeed());
}

}  // namespace ovra::test
