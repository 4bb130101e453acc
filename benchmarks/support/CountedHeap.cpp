#include <cstddef>

#include "benchmarks/support/HeapUse.h"

// The C library's allocator under the names that it keeps for those who replace `malloc`.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace ovra::bench {

namespace {

thread_local HeapUse use = {0, 0};

void count(std::size_t bytes) {
    ++use.allocations;
    use.bytes += bytes;
}

}  // namespace

HeapUse heapUse() {
    return use;
}

bool isHeapCounted() {
    return true;
}

}  // namespace ovra::bench

extern "C" {

void* malloc(std::size_t size) noexcept {
    ovra::bench::count(size);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    ovra::bench::count(count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept {
    ovra::bench::count(size);
    return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    ovra::bench::count(size);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    ovra::bench::count(size);
    *block = __libc_memalign(alignment, size);
    return *block != nullptr ? 0 : 12;  // ENOMEM
}

}  // extern "C"
