#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "benchmarks/concurrent/ClosedGate.h"
#include "benchmarks/concurrent/Job.h"
#include "benchmarks/support/Affinity.h"
#include "benchmarks/support/Clock.h"
#include "benchmarks/support/HeapUse.h"
#include "benchmarks/support/Run.h"

namespace ovra::bench {

/// What is measured of every pool, in a process of its own. `Pool` as `PoolBenchmarks` has it.
template <typename Pool>
class PoolRuns {
public:
    static bool add(std::string const& pool) {
        return Run::add("cold", pool, cold<0>) && Run::add("captures-8", pool, cold<8>) &&
               Run::add("captures-48", pool, cold<48>) && Run::add("captures-200", pool, cold<200>);
    }

private:
    using Ticket = typename Pool::Ticket;
    using Counter = std::atomic<std::int64_t>;

    struct Count {
        void operator()() const { counter->fetch_add(1, std::memory_order_relaxed); }
        Counter* counter;
    };

    template <std::size_t SIZE>
    struct CountWith : Count {
        explicit CountWith(Counter* toCount) : Count{toCount} {}
        char captured[SIZE - sizeof(Count)] = {};
    };

    static constexpr Urgency URGENCIES[] = {Urgency::LOW, Urgency::NORMAL, Urgency::HIGH};

    template <std::size_t SIZE>
    static Ticket submit(Pool& pool, Counter& counter, Urgency urgency) {
        if constexpr (SIZE > sizeof(Count)) {
            return pool.submit(CountWith<SIZE>(&counter), urgency, "task");
        } else {
            return pool.submit(Count{&counter}, urgency, "task");
        }
    }

    // A burst as an application sees its first one: a fresh process and pool, every handle kept,
    // and waited for from the first to the last.
    template <std::size_t SIZE>
    static void cold(Run& run) {
        std::int64_t const count = run.number("n", 1000);
        int const workers = static_cast<int>(run.number("workers", 1));
        PinnedToOneCore const pin(run.number("pinned", 0) != 0);
        Counter counter{0};
        double const memoryBefore = statusKiB("VmRSS:");
        Pool pool(workers);
        std::vector<Ticket> tickets;
        tickets.reserve(static_cast<std::size_t>(count));
        ClosedGate<Pool> gate(pool, workers);
        HeapUse const heapBefore = heapUse();
        std::int64_t const switchesBefore = switches();
        double const processorBefore = processorSeconds();
        auto const begin = Clock::now();
        for (std::int64_t i = 0; i < count; ++i) {
            tickets.push_back(submit<SIZE>(pool, counter, URGENCIES[i % 3]));
        }
        auto const submitted = Clock::now();
        HeapUse const heapAfter = heapUse();
        gate.open();
        for (Ticket& ticket : tickets) {
            Pool::wait(ticket);
        }
        auto const end = Clock::now();
        double const processor = processorSeconds() - processorBefore;
        if (counter != count) {
            run.fail("Not every task ran.");
        }
        double const tasks = static_cast<double>(count);
        run.report("ns", secondsBetween(begin, end) * 1e9 / tasks);
        run.report("cpu_ns", processor * 1e9 / tasks);
        run.report("submit_ns", secondsBetween(begin, submitted) * 1e9 / tasks);
        run.report("switches", static_cast<double>(switches() - switchesBefore) / tasks);
        run.report("peak_kib", statusKiB("VmHWM:") - memoryBefore);
        if (isHeapCounted()) {
            run.report("queued_bytes",
                       static_cast<double>(heapAfter.held - heapBefore.held) / tasks);
        }
    }

    static std::int64_t switches() {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_nvcsw + usage.ru_nivcsw;
    }

    static double statusKiB(std::string const& field) {
        std::ifstream status("/proc/self/status");
        std::string word;
        while (status >> word) {
            if (double kiB = 0; word == field && status >> kiB) {
                return kiB;
            }
        }
        return 0;
    }
};

}  // namespace ovra::bench
