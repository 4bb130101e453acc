#include <malloc.h>

#include <atomic>
#include <cstddef>

#include <benchmarks/support/HeapUse.h>

// The C library's allocator under the names that it keeps for those who replace `malloc`.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace ovra::bench {

namespace {

thread_local HeapUse use = {0, 0, 0};
std::atomic<std::size_t> held{0};

void* counted(std::size_t bytes, void* block) {
    ++use.allocations;
    use.bytes += bytes;
    held.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
    return block;
}

void release(void* block) {
    held.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
}

}  // namespace

HeapUse heapUse() {
    return {use.allocations, use.bytes, held.load(std::memory_order_relaxed)};
}

bool isHeapCounted() {
    return true;
}

}  // namespace ovra::bench

extern "C" {

void* malloc(std::size_t size) noexcept {
    return ovra::bench::counted(size, __libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    return ovra::bench::counted(count * size, __libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
    ovra::bench::release(block);
    return ovra::bench::counted(size, __libc_realloc(block, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return ovra::bench::counted(size, __libc_memalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
    *block = ovra::bench::counted(size, __libc_memalign(alignment, size));
    return *block != nullptr ? 0 : 12;  // ENOMEM
}

void free(void* block) noexcept {
    ovra::bench::release(block);
    __libc_free(block);
}

}  // extern "C"
