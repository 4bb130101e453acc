#include <ovra/extra/internal/ForkCount.h>

#include <pthread.h>

#include <atomic>
#include <new>

namespace ovra::extra {

namespace {

std::atomic<std::uint32_t> forks{0};

// Called in the child, before `fork` returns there.
void countOne() {
    forks.fetch_add(1, std::memory_order_relaxed);
}

bool registerHandler() {
    if (pthread_atfork(nullptr, nullptr, countOne) != 0) {
        throw std::bad_alloc();  // Its only failure.
    }
    return true;
}

}  // namespace

void countForks() {
    // The C library unregisters the handler when this library is unloaded.
    [[maybe_unused]] static bool const isRegistered = registerHandler();
}

std::uint32_t forkCount() noexcept {
    return forks.load(std::memory_order_relaxed);
}

}  // namespace ovra::extra
