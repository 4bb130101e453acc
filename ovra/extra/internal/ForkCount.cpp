#include <ovra/extra/internal/ForkCount.h>

#include <pthread.h>

#include <atomic>
#include <new>

namespace ovra::extra {

namespace {

std::atomic<std::uint32_t> forks{0};
std::atomic<bool> isCounted{false};

// Called in the child, before `fork` returns there.
void countOne() {
    forks.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

void countForks() {
    // Without a lock, which a child could find held by a thread that it does not have. Two threads
    // may register the handler twice: then each fork counts twice. The C library unregisters it
    // when this library is unloaded.
    if (!isCounted.load(std::memory_order_acquire)) {
        if (pthread_atfork(nullptr, nullptr, countOne) != 0) {
            throw std::bad_alloc();  // Its only failure.
        }
        isCounted.store(true, std::memory_order_release);
    }
}

std::uint32_t forkCount() noexcept {
    return forks.load(std::memory_order_relaxed);
}

}  // namespace ovra::extra
