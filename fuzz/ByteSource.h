#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include <fuzzer/FuzzedDataProvider.h>

namespace ovra::fuzz {

/// Gives numbers as a test's RandomSource does, but those that the input says; zeros at its end.
class ByteSource {
public:
    ByteSource(std::uint8_t const* data, std::size_t size) : bytes(data, size) {}

    bool isEmpty() { return bytes.remaining_bytes() == 0; }
    std::uint64_t next() { return bytes.ConsumeIntegral<std::uint8_t>(); }
    std::uint32_t word() { return bytes.ConsumeIntegral<std::uint32_t>(); }
    std::uint32_t below(std::uint32_t limit) {
        return bytes.ConsumeIntegralInRange<std::uint32_t>(0, limit - 1);
    }
    int between(int first, int last) { return bytes.ConsumeIntegralInRange(first, last); }
    template <typename Container>
    auto& pick(Container& container) {
        return container[bytes.ConsumeIntegralInRange<std::size_t>(0, std::size(container) - 1)];
    }
    bool oneIn(std::uint32_t chances) { return below(chances) == 0; }

private:
    FuzzedDataProvider bytes;
};

}  // namespace ovra::fuzz
