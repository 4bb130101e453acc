#pragma once

#include <cstddef>

namespace ovra::bench {

/// What one thread has asked of the heap, through `malloc` and whatever calls it.
struct HeapUse {
    std::size_t allocations;
    std::size_t bytes;
    std::size_t held;  ///< What all threads together have not freed, rounded up as the heap does.
};

/// What the calling thread has asked for since it began. Zeros in a program that does not count.
HeapUse heapUse();
bool isHeapCounted();

}  // namespace ovra::bench
