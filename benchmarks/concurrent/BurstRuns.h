#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <benchmarks/concurrent/ClosedGate.h>
#include <benchmarks/concurrent/Tasks.h>
#include <benchmarks/support/Affinity.h>
#include <benchmarks/support/Clock.h>
#include <benchmarks/support/HeapUse.h>
#include <benchmarks/support/Usage.h>

namespace ovra::bench {

/// Many tasks at once: all queue behind a closed gate, then run.
template <typename Pool>
class BurstRuns {
public:
    static bool add(std::string const& pool) {
        return Run::add("burst", pool, warm) && Run::add("cold", pool, cold<sizeof(Count)>) &&
               Run::add("captures-8", pool, cold<8>) && Run::add("captures-48", pool, cold<48>) &&
               Run::add("captures-200", pool, cold<200>) &&
               Run::add("submission", pool, submission);
    }

private:
    using Ticket = typename Pool::Ticket;

    template <std::size_t SIZE>
    struct CountWith : Count {
        explicit CountWith(Counter* toCount) : Count{toCount} {}
        char captured[SIZE - sizeof(Count)] = {};
    };

    template <std::size_t SIZE>
    static Ticket submit(Pool& pool, Counter& counter, JobPriority priority) {
        if constexpr (SIZE > sizeof(Count)) {
            return pool.submit(CountWith<SIZE>(&counter), priority, "task");
        } else {
            return pool.submit(Count{&counter}, priority, "task");
        }
    }

    // The lowest priority comes last.
    static void submitMany(Pool& pool, std::vector<Ticket>& tickets, std::int64_t count,
                           Counter& counter) {
        for (std::int64_t left = count; left > 0; --left) {
            tickets.push_back(pool.submit(Count{&counter}, jobPriorityOf(left - 1), "task"));
        }
    }

    // One pool for all rounds, and a warm heap after the first round, which does not count. The
    // caller waits from the last task to the first, and drops its tickets within the time. With no
    // rounds at all, a counter of instructions sees the first round alone.
    static void warm(Run& run) {
        std::int64_t const count = run.number("n", 1000);
        std::int64_t const rounds =
            run.number("rounds", std::clamp<std::int64_t>(30000 / count, 2, 100));
        int const workers = static_cast<int>(run.number("workers", 1));
        Pool pool(workers);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(static_cast<std::size_t>(count));
        double submitting = 0;
        double all = 0;
        double processor = 0;
        std::int64_t switches = 0;
        for (std::int64_t round = 0; round <= rounds; ++round) {
            ClosedGate<Pool> gate(pool, workers);
            std::int64_t const switchesBefore = contextSwitches();
            double const processorBefore = processorSeconds();
            auto const begin = Clock::now();
            submitMany(pool, tickets, count, counter);
            auto const submitted = Clock::now();
            gate.open();
            waitFromLast<Pool>(tickets);
            tickets.clear();
            auto const end = Clock::now();
            if (round > 0) {
                processor += processorSeconds() - processorBefore;
                switches += contextSwitches() - switchesBefore;
                submitting += secondsBetween(begin, submitted);
                all += secondsBetween(begin, end);
            }
        }
        requireRun(run, counter, count * (rounds + 1));
        if (rounds == 0) {
            return;
        }
        double const tasks = static_cast<double>(count * rounds);
        run.report("ns", all * 1e9 / tasks);
        run.report("cpu_ns", processor * 1e9 / tasks);
        run.report("submit_ns", submitting * 1e9 / tasks);
        run.report("switches", static_cast<double>(switches) / tasks);
    }

    // As an application sees its first burst: a new process and pool. Every ticket is kept, and
    // waited for from the first to the last.
    template <std::size_t SIZE>
    static void cold(Run& run) {
        std::int64_t const count = run.number("n", 1000);
        int const workers = static_cast<int>(run.number("workers", 1));
        PinnedToOneCore const pin(run.number("pinned", 0) != 0);
        Counter counter{0};
        double const memoryBefore = kiB("status", "VmRSS:");
        Pool pool(workers);
        std::vector<Ticket> tickets;
        tickets.reserve(static_cast<std::size_t>(count));
        ClosedGate<Pool> gate(pool, workers);
        std::size_t const heldBefore = heapUse().held;
        std::int64_t const switchesBefore = contextSwitches();
        double const processorBefore = processorSeconds();
        auto const begin = Clock::now();
        for (std::int64_t i = 0; i < count; ++i) {
            tickets.push_back(submit<SIZE>(pool, counter, jobPriorityOf(i)));
        }
        auto const submitted = Clock::now();
        std::size_t const heldQueued = heapUse().held;
        gate.open();
        waitFromFirst<Pool>(tickets);
        auto const end = Clock::now();
        double const processor = processorSeconds() - processorBefore;
        std::size_t const heldKept = heapUse().held;
        requireRun(run, counter, count);
        double const tasks = static_cast<double>(count);
        run.report("ns", secondsBetween(begin, end) * 1e9 / tasks);
        run.report("cpu_ns", processor * 1e9 / tasks);
        run.report("submit_ns", secondsBetween(begin, submitted) * 1e9 / tasks);
        run.report("switches", static_cast<double>(contextSwitches() - switchesBefore) / tasks);
        run.report("peak_kib", kiB("status", "VmHWM:") - memoryBefore);
        if (isHeapCounted()) {
            run.report("queued_bytes", static_cast<double>(heldQueued - heldBefore) / tasks);
            // What the queue keeps for the next burst counts as well.
            run.report("kept_bytes", static_cast<double>(heldKept - heldBefore) / tasks);
        }
    }

    static void submission(Run& run) {
        static constexpr std::int64_t COUNT = 1000;
        std::int64_t const rounds = run.number("rounds", 20);
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(COUNT);
        HeapUse used = {0, 0, 0};
        Stopwatch watch;
        for (std::int64_t round = 0; round < rounds; ++round) {
            ClosedGate<Pool> gate(pool, 1);
            HeapUse const before = heapUse();
            watch.start();
            submitMany(pool, tickets, COUNT, counter);
            watch.stop();
            HeapUse const after = heapUse();
            used.allocations += after.allocations - before.allocations;
            used.bytes += after.bytes - before.bytes;
            gate.open();
            waitFromLast<Pool>(tickets);
            tickets.clear();
        }
        requireRun(run, counter, COUNT * rounds);
        double const tasks = static_cast<double>(COUNT * rounds);
        run.report("ns", watch.nanoseconds(tasks));
        run.report("cpu_ns", watch.cpuNanoseconds(tasks));
        if (isHeapCounted()) {
            run.report("allocations", static_cast<double>(used.allocations) / tasks);
            run.report("bytes", static_cast<double>(used.bytes) / tasks);
        }
    }
};

}  // namespace ovra::bench
