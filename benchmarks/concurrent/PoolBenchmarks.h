#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "benchmarks/concurrent/ClosedGate.h"
#include "benchmarks/concurrent/Job.h"
#include "benchmarks/support/Affinity.h"
#include "benchmarks/support/Clock.h"
#include "benchmarks/support/HeapUse.h"

namespace ovra::bench {

/// What is measured of every pool. A `Pool` has
///
///     explicit Pool(int workers);
///     using Ticket = ...;
///     template <typename Work> Ticket submit(Work const& work, Urgency urgency, char const* name);
///     static void wait(Ticket& ticket);
///
/// and, where a queued task can still be changed, `reprioritise(Ticket&, Urgency)` and
/// `cancel(Ticket&)`.
template <typename Pool>
class PoolBenchmarks {
public:
    using Ticket = typename Pool::Ticket;

    static bool add(std::string const& pool, std::int64_t largestBurst) {
        for (std::int64_t count = 100; count <= largestBurst; count *= 10) {
            for (int workers : {1, 2}) {
                std::string const arguments =
                    "/n:" + std::to_string(count) + "/workers:" + std::to_string(workers);
                benchmark::RegisterBenchmark(
                    ("burst/" + pool + arguments).c_str(),
                    [=](benchmark::State& state) { burst(state, count, workers); })
                    ->UseManualTime();
            }
        }
        for (bool pinned : {false, true}) {
            std::string const place = pinned ? "/pinned" : "/free";
            benchmark::RegisterBenchmark(
                ("steady/" + pool + place).c_str(),
                [=](benchmark::State& state) { keepInFlight(state, 64, pinned); })
                ->UseRealTime();
            benchmark::RegisterBenchmark(
                ("roundtrip/" + pool + place).c_str(),
                [=](benchmark::State& state) { keepInFlight(state, 1, pinned); })
                ->UseRealTime();
        }
        benchmark::RegisterBenchmark(("submission/" + pool).c_str(), submission)->UseManualTime();
        benchmark::RegisterBenchmark(("idle/" + pool).c_str(), idle)->Iterations(1);
        return true;
    }

    static bool addChanges(std::string const& pool) {
        benchmark::RegisterBenchmark(("reprioritise/" + pool).c_str(), [](benchmark::State& state) {
            change(state,
                   [](Pool& tasks, Ticket& ticket) { tasks.reprioritise(ticket, Urgency::HIGH); });
        })->UseManualTime();
        benchmark::RegisterBenchmark(("cancel/" + pool).c_str(), [](benchmark::State& state) {
            change(state, [](Pool& tasks, Ticket& ticket) { tasks.cancel(ticket); });
        })->UseManualTime();
        return true;
    }

private:
    static constexpr std::int64_t MANY = 10000;

    using Counter = std::atomic<std::int64_t>;

    struct Count {
        void operator()() const { counter->fetch_add(1, std::memory_order_relaxed); }
        Counter* counter;
    };

    // The three priorities in turn, the lowest last.
    static void submitMany(Pool& pool, std::vector<Ticket>& tickets, std::int64_t count,
                           Counter& counter) {
        static constexpr Urgency URGENCIES[] = {Urgency::LOW, Urgency::NORMAL, Urgency::HIGH};
        for (std::int64_t left = count; left > 0; --left) {
            tickets.push_back(pool.submit(Count{&counter}, URGENCIES[(left - 1) % 3], "task"));
        }
    }

    // From the last to run: the first wait blocks, those after it hardly ever.
    static void waitForAll(std::vector<Ticket>& tickets) {
        for (auto ticket = tickets.rbegin(); ticket != tickets.rend(); ++ticket) {
            Pool::wait(*ticket);
        }
    }

    static double perTask(double seconds, benchmark::State& state, std::int64_t count) {
        return seconds * 1e9 /
               (static_cast<double>(state.iterations()) * static_cast<double>(count));
    }

    static void requireAll(benchmark::State& state, Counter const& counter, std::int64_t expected) {
        if (counter != expected) {
            state.SkipWithError("Not every task ran.");
        }
    }

    static void burst(benchmark::State& state, std::int64_t count, int workers) {
        Pool pool(workers);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(static_cast<std::size_t>(count));
        double submitting = 0;
        double all = 0;
        double processor = 0;
        for ([[maybe_unused]] auto _ : state) {
            ClosedGate<Pool> gate(pool, workers);
            double const processorBefore = processorSeconds();
            auto const begin = Clock::now();
            submitMany(pool, tickets, count, counter);
            auto const submitted = Clock::now();
            gate.open();
            waitForAll(tickets);
            tickets.clear();
            auto const end = Clock::now();
            processor += processorSeconds() - processorBefore;
            submitting += secondsBetween(begin, submitted);
            all += secondsBetween(begin, end);
            state.SetIterationTime(secondsBetween(begin, end));
        }
        requireAll(state, counter, count * static_cast<std::int64_t>(state.iterations()));
        state.counters["ns"] = perTask(all, state, count);
        state.counters["cpu_ns"] = perTask(processor, state, count);
        state.counters["submit_ns"] = perTask(submitting, state, count);
    }

    // The caller waits for the oldest of `inFlight` tasks and submits another.
    static void keepInFlight(benchmark::State& state, std::size_t inFlight, bool pinned) {
        PinnedToOneCore const pin(pinned);
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        for (std::size_t i = 0; i < inFlight; ++i) {
            tickets.push_back(pool.submit(Count{&counter}, Urgency::NORMAL, "task"));
        }
        std::size_t oldest = 0;
        double const processorBefore = processorSeconds();
        auto const begin = Clock::now();
        for ([[maybe_unused]] auto _ : state) {
            Pool::wait(tickets[oldest]);
            tickets[oldest] = pool.submit(Count{&counter}, Urgency::NORMAL, "task");
            oldest = oldest + 1 < inFlight ? oldest + 1 : 0;
        }
        state.counters["ns"] = perTask(secondsBetween(begin, Clock::now()), state, 1);
        state.counters["cpu_ns"] = perTask(processorSeconds() - processorBefore, state, 1);
        for (Ticket& ticket : tickets) {
            Pool::wait(ticket);
        }
        requireAll(
            state, counter,
            static_cast<std::int64_t>(state.iterations()) + static_cast<std::int64_t>(inFlight));
    }

    static void submission(benchmark::State& state) {
        static constexpr std::int64_t COUNT = 1000;
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(COUNT);
        HeapUse used = {0, 0, 0};
        Stopwatch watch;
        for ([[maybe_unused]] auto _ : state) {
            ClosedGate<Pool> gate(pool, 1);
            HeapUse const before = heapUse();
            watch.start();
            submitMany(pool, tickets, COUNT, counter);
            state.SetIterationTime(watch.stop());
            HeapUse const after = heapUse();
            used.allocations += after.allocations - before.allocations;
            used.bytes += after.bytes - before.bytes;
            gate.open();
            waitForAll(tickets);
            tickets.clear();
        }
        requireAll(state, counter, COUNT * static_cast<std::int64_t>(state.iterations()));
        double const tasks = static_cast<double>(state.iterations()) * COUNT;
        state.counters["ns"] = watch.nanoseconds(tasks);
        state.counters["cpu_ns"] = watch.cpuNanoseconds(tasks);
        if (isHeapCounted()) {
            state.counters["allocations"] = static_cast<double>(used.allocations) / tasks;
            state.counters["bytes"] = static_cast<double>(used.bytes) / tasks;
        }
    }

    // A quarter of the queued tasks, in random order.
    template <typename Change>
    static void change(benchmark::State& state, Change const& apply) {
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(MANY);
        std::vector<std::size_t> chosen;
        for (std::size_t i = 0; i < MANY; ++i) {
            chosen.push_back(i);
        }
        std::shuffle(chosen.begin(), chosen.end(), std::minstd_rand(1));
        chosen.resize(MANY / 4);
        Stopwatch changing;
        double all = 0;
        for ([[maybe_unused]] auto _ : state) {
            ClosedGate<Pool> gate(pool, 1);
            for (std::int64_t i = 0; i < MANY; ++i) {
                tickets.push_back(pool.submit(Count{&counter}, Urgency::NORMAL, "task"));
            }
            double const processorBefore = processorSeconds();
            changing.start();
            for (std::size_t index : chosen) {
                apply(pool, tickets[index]);
            }
            changing.stop();
            gate.open();
            waitForAll(tickets);
            tickets.clear();
            double const seconds = processorSeconds() - processorBefore;
            all += seconds;
            state.SetIterationTime(seconds);
        }
        double const changes =
            static_cast<double>(state.iterations()) * static_cast<double>(chosen.size());
        state.counters["ns"] = changing.nanoseconds(changes);
        state.counters["cpu_ns"] = changing.cpuNanoseconds(changes);
        state.counters["all_cpu_ns"] = perTask(all, state, MANY);
    }

    static double privateKiB() {
        std::ifstream map("/proc/self/smaps_rollup");
        std::string word;
        double total = 0;
        while (map >> word) {
            if (double kiB = 0; word == "Private_Dirty:" && map >> kiB) {
                total = kiB;
            }
        }
        return total;
    }

    // Meaningful for the first pool of a process only: what it leaves to the allocator stays.
    static void idle(benchmark::State& state) {
        Counter counter{0};
        privateKiB();
        for ([[maybe_unused]] auto _ : state) {
            double const before = privateKiB();
            Pool pool(1);
            Ticket ticket = pool.submit(Count{&counter}, Urgency::NORMAL, "task");
            Pool::wait(ticket);
            ticket = Ticket();
            state.counters["kib"] = privateKiB() - before;
        }
        requireAll(state, counter, 1);
    }
};

}  // namespace ovra::bench
