#pragma once

#include <cxxabi.h>

#include <relacy/relacy.hpp>

// The checker's macros, which would change everything below.
#undef memory_order_relaxed
#undef memory_order_consume
#undef memory_order_acquire
#undef memory_order_release
#undef memory_order_acq_rel
#undef memory_order_seq_cst
#undef new
#undef delete
#undef malloc
#undef calloc
#undef realloc
#undef free
#undef assert
#undef sem_t
#undef sem_init
#undef sem_wait
#undef sem_post
#undef errno
#define errno (*__errno_location())

#include "Model.h"

// What the checker runs: the parts of a run that no scenario repeats.

namespace model {

/// Keeps what the C++ run time knows of the exceptions of a thread, over a step at which another
/// thread may go on: to the run time all threads of the checker are one.
struct EhGuard {
    EhGuard();
    EhGuard(EhGuard const&) = delete;
    EhGuard& operator=(EhGuard const&) = delete;
    ~EhGuard();
    static void begin();

    unsigned char kept[2 * sizeof(void*)];
};

/// In a random search, holds a thread back by a random number of steps. Without, a thread of few
/// steps nearly always ends before one of many.
void delayThread();

void beginRun();
void endRun();

/// A scenario of the checker, made of a `Scenario` that has `THREADS`, `run(thread)` and `check()`.
template <typename Scenario, int THREADS, int STARTED = 0>
struct Suite : rl::test_suite<Suite<Scenario, THREADS, STARTED>, THREADS> {
    static rl::thread_id_t const dynamic_thread_count = STARTED;

    void before() {
        beginRun();
        scenario = new Scenario;
    }
    void thread(unsigned int index) {
        EhGuard::begin();
        delayThread();
        scenario->run(index);
    }
    void after() {
        EhGuard::begin();
        scenario->check();
        delete scenario;
        endRun();
    }

    Scenario* scenario = nullptr;
};

}  // namespace model
