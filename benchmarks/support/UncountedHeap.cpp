#include <benchmarks/support/HeapUse.h>

namespace ovra::bench {

HeapUse heapUse() {
    return {0, 0, 0};
}

bool isHeapCounted() {
    return false;
}

}  // namespace ovra::bench
