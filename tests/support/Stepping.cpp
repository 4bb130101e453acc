#include <tests/support/Stepping.h>

#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::test {

namespace {

std::vector<std::uintptr_t> places;  // In the order in which they were first reached.

}  // namespace

#if defined(__x86_64__)

namespace {

constexpr greg_t TRAP_FLAG = 0x100;
constexpr unsigned char BREAKPOINT = 0xcc;

struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

Code codeOfTheLibrary() {
    Code code;
    dl_iterate_phdr(
        [](dl_phdr_info* object, std::size_t, void* found) {
            if (std::strstr(object->dlpi_name, "libovra.so") == nullptr) {
                return 0;
            }
            for (int i = 0; i < object->dlpi_phnum; ++i) {
                auto const& segment = object->dlpi_phdr[i];
                if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
                    auto const begin = object->dlpi_addr + segment.p_vaddr;
                    *static_cast<Code*>(found) = {begin, begin + segment.p_memsz};
                }
            }
            return 1;
        },
        &code);
    return code;
}

// What the handler of a trap uses. One round runs at a time.
Code library;
std::uintptr_t breakpoint = 0;
unsigned char replaced = 0;
sem_t mayChange;
sem_t hasStopped;  // The change has been made, or waits for a lock.

void setByte(std::uintptr_t place, unsigned char value) {
    auto const page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* const start = reinterpret_cast<void*>(place & ~(page - 1));
    mprotect(start, page, PROT_READ | PROT_WRITE | PROT_EXEC);
    *reinterpret_cast<unsigned char volatile*>(place) = value;
    mprotect(start, page, PROT_READ | PROT_EXEC);
}

void await(sem_t& semaphore) {
    while (sem_wait(&semaphore) != 0) {
    }
}

void onTrap(int, siginfo_t*, void* context) {
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    auto const place = static_cast<std::uintptr_t>(registers[REG_RIP]);
    if (breakpoint == 0) {
        if (place >= library.begin && place < library.end &&
            std::find(places.begin(), places.end(), place) == places.end()) {
            places.push_back(place);
        }
        return;
    }
    setByte(breakpoint, replaced);
    registers[REG_RIP] = static_cast<greg_t>(breakpoint);
    sem_post(&mayChange);
    await(hasStopped);
}

void setTrapFlag() {
    asm volatile("pushfq; orq $0x100, (%%rsp); popfq" : : : "cc", "memory");
}

void clearTrapFlag() {
    asm volatile("pushfq; andq $~0x100, (%%rsp); popfq" : : : "cc", "memory");
}

void withTrapHandler(std::function<void()> const& action) {
    struct sigaction trap = {};
    struct sigaction before = {};
    trap.sa_sigaction = onTrap;
    trap.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &trap, &before);
    action();
    sigaction(SIGTRAP, &before, nullptr);
}

}  // namespace

char const* noSteppingBecause() {
    return SANITIZED ? "the sanitizer adds instructions of its own" : "";
}

void Stepping::operator()(std::function<void()> const& action,
                          std::function<void()> const& change) {
    breakpoint = place;
    if (place == 0) {
        library = codeOfTheLibrary();
        places.reserve(library.end - library.begin);  // The action may be allocating at a trap.
        withTrapHandler([&] {
            setTrapFlag();
            action();
            clearTrapFlag();
        });
        change();
        return;
    }

    sem_init(&mayChange, 0, 0);
    sem_init(&hasStopped, 0, 0);
    pthread_t const stepped = pthread_self();
    ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* mutex) {
        if (pthread_equal(stepped, pthread_self()) == 0 && isLocked(mutex)) {
            sem_post(&hasStopped);
        }
        return 0;
    };
    std::thread changer([&] {
        await(mayChange);
        change();
        sem_post(&hasStopped);
    });
    calls.install();
    withTrapHandler([&] {
        replaced = *reinterpret_cast<unsigned char*>(place);
        setByte(place, BREAKPOINT);
        action();
        setByte(place, replaced);
    });
    sem_post(&mayChange);  // If this round did not come there.
    changer.join();
}

#else

char const* noSteppingBecause() {
    return "instructions are stepped on x86-64 only";
}

void Stepping::operator()(std::function<void()> const& action,
                          std::function<void()> const& change) {
    action();
    change();
}

#endif

void atEachInstruction(std::function<void(Stepping&)> const& round) {
    places.clear();
    Stepping first(0, 0);
    round(first);
    auto const found = places;
    EXPECT_GT(found.size(), 3u);
    for (std::size_t i = 0; i < found.size() && !::testing::Test::HasFailure(); ++i) {
        Stepping stepping(static_cast<int>(i) + 1, found[i]);
        round(stepping);
    }
}

}  // namespace ovra::test
