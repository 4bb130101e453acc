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
#include <utility>
#include <vector>

#include <tests/support/Bounded.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::test {

namespace {

constexpr int MOST_VISITS = 3;

struct Place {
    std::uintptr_t address;
    int visits;
};

std::vector<Place> places;  // In the order in which they were first reached.

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
int visitsLeft = 0;
bool isPassing = false;
unsigned char replaced = 0;
sem_t mayChange;
sem_t hasStopped;  // The change has been made, or waits for a lock.

unsigned char volatile* byteAt(std::uintptr_t place) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the processor says where it is as a number.
    return reinterpret_cast<unsigned char volatile*>(place);
}

void setByte(std::uintptr_t place, unsigned char value) {
    auto const page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* const start = const_cast<unsigned char*>(byteAt(place & ~(page - 1)));
    mprotect(start, page, PROT_READ | PROT_WRITE | PROT_EXEC);
    *byteAt(place) = value;
    mprotect(start, page, PROT_READ | PROT_EXEC);
}

void await(sem_t& semaphore) {
    while (sem_wait(&semaphore) != 0) {
    }
}

void notePlace(std::uintptr_t address) {
    if (address < library.begin || address >= library.end) {
        return;
    }
    auto const found = std::find_if(places.begin(), places.end(), [address](Place const& known) {
        return known.address == address;
    });
    if (found == places.end()) {
        places.push_back({address, 1});
    } else {
        found->visits = std::min(found->visits + 1, MOST_VISITS);
    }
}

void onTrap(int, siginfo_t*, void* context) {
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    auto const place = static_cast<std::uintptr_t>(registers[REG_RIP]);
    if (breakpoint == 0) {
        notePlace(place);
        return;
    }
    if (std::exchange(isPassing, false)) {  // One instruction after a visit that did not count.
        setByte(breakpoint, BREAKPOINT);
        registers[REG_EFL] &= ~TRAP_FLAG;
        return;
    }
    setByte(breakpoint, replaced);
    registers[REG_RIP] = static_cast<greg_t>(breakpoint);
    if (--visitsLeft > 0) {
        isPassing = true;
        registers[REG_EFL] |= TRAP_FLAG;
        return;
    }
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
    visitsLeft = nthVisit;
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
        replaced = *byteAt(place);
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
    Stepping first(0, 0, 0);
    round(first);
    auto const found = places;
    EXPECT_GT(found.size(), 3u);
    int nth = 0;
    for (Place const& place : found) {
        for (int visit = 1; visit <= place.visits && !::testing::Test::HasFailure(); ++visit) {
            Stepping stepping(++nth, place.address, visit);
            round(stepping);
        }
    }
}

}  // namespace ovra::test
