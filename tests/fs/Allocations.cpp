#include <tests/fs/Allocations.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace ovra::fs::test {

namespace {

struct State {
    bool watching = false;
    bool failed = false;
    bool changesErrno = false;
    int untilFailure = -1;  // negative: none is to fail
    int made = 0;
    int living = 0;
};

thread_local State state;

}  // namespace

Allocations::Allocations() {
    state = State();
    state.watching = true;
}

Allocations::~Allocations() {
    state = State();
}

void Allocations::failAfter(int succeeding) {
    state.untilFailure = succeeding;
    state.failed = false;
}

void Allocations::changeErrno() {
    state.changesErrno = true;
}

bool Allocations::hasFailed() const {
    return state.failed;
}

int Allocations::made() const {
    return state.made;
}

int Allocations::living() const {
    return state.living;
}

}  // namespace ovra::fs::test

void* operator new(std::size_t size) {
    using ovra::fs::test::state;
    if (state.watching && state.untilFailure >= 0 && state.untilFailure-- == 0) {
        state.failed = true;
        throw std::bad_alloc();
    }
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (state.watching) {
        ++state.made;
        ++state.living;
    }
    return block;
}

void operator delete(void* block) noexcept {
    using ovra::fs::test::state;
    if (state.watching && block != nullptr) {
        --state.living;
    }
    std::free(block);
    errno = state.changesErrno ? ERANGE : errno;
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

// As in libstdc++, whose own valgrind replaces.
void* operator new[](std::size_t size) {
    return operator new(size);
}

void operator delete[](void* block) noexcept {
    operator delete(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    operator delete(block);
}
