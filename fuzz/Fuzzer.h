#pragma once

#include <cstddef>
#include <cstdint>

// What the fuzzer calls: once at the start, and for every input.
extern "C" int LLVMFuzzerInitialize(int* argumentCount, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
