#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <benchmarks/concurrent/ClosedGate.h>
#include <benchmarks/concurrent/Tasks.h>
#include <benchmarks/support/Affinity.h>
#include <benchmarks/support/Clock.h>
#include <benchmarks/support/Quantiles.h>
#include <benchmarks/support/Spin.h>
#include <benchmarks/support/Usage.h>

namespace ovra::bench {

/// Tasks that are submitted while others run.
template <typename Pool>
class FlowRuns {
public:
    static bool add(std::string const& pool) {
        return Run::add("steady", pool, keepInFlight<64>) &&
               Run::add("roundtrip", pool, keepInFlight<1>) && Run::add("latency", pool, latency) &&
               Run::add("start", pool, start) && Run::add("work", pool, work) &&
               Run::add("submitters", pool, submitters) && Run::add("idle", pool, idle);
    }

private:
    using Ticket = typename Pool::Ticket;

    // The caller waits for the oldest task in flight and submits another.
    template <std::size_t IN_FLIGHT>
    static void keepInFlight(Run& run) {
        PinnedToOneCore const pin(run.number("pinned", 0) != 0);
        std::int64_t const count = run.number("n", 10000);
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        for (std::size_t i = 0; i < IN_FLIGHT; ++i) {
            tickets.push_back(pool.submit(Count{&counter}, JobPriority::NORMAL, "task"));
        }
        std::size_t oldest = 0;
        std::int64_t const switchesBefore = contextSwitches();
        double const processorBefore = processorSeconds();
        auto const begin = Clock::now();
        for (std::int64_t i = 0; i < count; ++i) {
            Pool::wait(tickets[oldest]);
            tickets[oldest] = pool.submit(Count{&counter}, JobPriority::NORMAL, "task");
            oldest = oldest + 1 < IN_FLIGHT ? oldest + 1 : 0;
        }
        double const tasks = static_cast<double>(count);
        run.report("ns", secondsBetween(begin, Clock::now()) * 1e9 / tasks);
        run.report("cpu_ns", (processorSeconds() - processorBefore) * 1e9 / tasks);
        run.report("switches", static_cast<double>(contextSwitches() - switchesBefore) / tasks);
        waitFromFirst<Pool>(tickets);
        requireRun(run, counter, count + static_cast<std::int64_t>(IN_FLIGHT));
    }

    // How long one submission takes while the worker runs earlier tasks: whenever a task ends,
    // another is submitted.
    static void latency(Run& run) {
        static constexpr double MICROSECONDS = 5;
        std::size_t const count = static_cast<std::size_t>(run.number("n", 10000));
        Spin const spin(MICROSECONDS);
        Pool pool(1);
        std::vector<Ticket> tickets;
        tickets.reserve(count);
        std::vector<double> nanoseconds;
        nanoseconds.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            auto const begin = Clock::now();
            tickets.push_back(pool.submit(spin, JobPriority::NORMAL, "task"));
            nanoseconds.push_back(secondsBetween(begin, Clock::now()) * 1e9);
            spin();
        }
        waitFromFirst<Pool>(tickets);
        reportQuantiles(run, std::move(nanoseconds));
    }

    // From before the submission to the first instruction of the work, on an idle pool whose worker
    // has had the time to fall asleep.
    static void start(Run& run) {
        std::size_t const count = static_cast<std::size_t>(run.number("n", 1000));
        Spin const pause(50);
        Pool pool(1);
        std::vector<double> nanoseconds;
        std::int64_t const switchesBefore = contextSwitches();
        for (std::size_t i = 0; i < count; ++i) {
            pause();
            Clock::time_point started;
            auto const begin = Clock::now();
            Ticket ticket =
                pool.submit([&started] { started = Clock::now(); }, JobPriority::NORMAL, "task");
            Pool::wait(ticket);
            nanoseconds.push_back(secondsBetween(begin, started) * 1e9);
        }
        run.report("switches", static_cast<double>(contextSwitches() - switchesBefore) /
                                   static_cast<double>(count));
        reportQuantiles(run, std::move(nanoseconds));
    }

    // Tasks of `us` microseconds, submitted to a free pool, against threads that share out the same
    // work among them and do nothing else; both in turn, so that whatever else the machine does
    // affects both.
    static void work(Run& run) {
        std::int64_t const count = run.number("n", 1000);
        std::int64_t const rounds = run.number("rounds", 3);
        int const workers = static_cast<int>(run.number("workers", 1));
        Spin const spin(static_cast<double>(run.number("us", 10)));
        std::int64_t const threads =
            std::min<std::int64_t>(workers, std::int64_t(std::thread::hardware_concurrency()));
        double ofPool = 0;
        double ofThreads = 0;
        Pool pool(workers);
        for (std::int64_t round = 0; round < rounds; ++round) {
            std::vector<Ticket> tickets;
            tickets.reserve(static_cast<std::size_t>(count));
            auto const begin = Clock::now();
            for (std::int64_t i = 0; i < count; ++i) {
                tickets.push_back(pool.submit(spin, JobPriority::NORMAL, "task"));
            }
            waitFromFirst<Pool>(tickets);
            ofPool += secondsBetween(begin, Clock::now());
            ofThreads += secondsOfThreads(spin, count, threads);
        }
        run.report("ns", ofPool * 1e9 / static_cast<double>(count * rounds));
        run.report("over_ideal", ofPool / ofThreads);
    }

    static double secondsOfThreads(Spin const& spin, std::int64_t count, std::int64_t threads) {
        Gate gate;
        std::vector<std::thread> sharing;
        for (std::int64_t thread = 0; thread < threads; ++thread) {
            sharing.emplace_back([&] {
                gate.pass();
                for (std::int64_t i = 0; i < count / threads; ++i) {
                    spin();
                }
            });
        }
        gate.awaitArrivals(static_cast<int>(threads));
        auto const begin = Clock::now();
        gate.open();
        for (std::thread& thread : sharing) {
            thread.join();
        }
        return secondsBetween(begin, Clock::now());
    }

    // Threads that submit at once. `least_share`: when half of all tasks have run, the tasks of the
    // thread served worst over those of the thread served best.
    static void submitters(Run& run) {
        std::int64_t const each = run.number("n", 2500);
        int const workers = static_cast<int>(run.number("workers", 1));
        std::size_t const threads = static_cast<std::size_t>(run.number("submitters", 4));
        std::int64_t const all = each * static_cast<std::int64_t>(threads);
        Counter counter{0};
        std::vector<Counter> ofThread(threads);
        std::vector<std::int64_t> atHalf(threads);
        Pool pool(workers);
        Gate gate;
        std::vector<std::thread> submitting;
        for (std::size_t thread = 0; thread < threads; ++thread) {
            submitting.emplace_back([&, thread] {
                auto const count = [&counter, &ofThread, &atHalf, thread, all] {
                    ofThread[thread].fetch_add(1, std::memory_order_relaxed);
                    if (counter.fetch_add(1) + 1 == all / 2) {
                        std::copy(ofThread.begin(), ofThread.end(), atHalf.begin());
                    }
                };
                std::vector<Ticket> tickets;
                tickets.reserve(static_cast<std::size_t>(each));
                gate.pass();
                for (std::int64_t i = 0; i < each; ++i) {
                    tickets.push_back(pool.submit(count, JobPriority::NORMAL, "task"));
                }
                waitFromFirst<Pool>(tickets);
            });
        }
        gate.awaitArrivals(static_cast<int>(threads));
        std::int64_t const switchesBefore = contextSwitches();
        double const processorBefore = processorSeconds();
        auto const begin = Clock::now();
        gate.open();
        for (std::thread& thread : submitting) {
            thread.join();
        }
        requireRun(run, counter, all);
        double const tasks = static_cast<double>(all);
        auto const [least, most] = std::minmax_element(atHalf.begin(), atHalf.end());
        run.report("ns", secondsBetween(begin, Clock::now()) * 1e9 / tasks);
        run.report("cpu_ns", (processorSeconds() - processorBefore) * 1e9 / tasks);
        run.report("switches", static_cast<double>(contextSwitches() - switchesBefore) / tasks);
        run.report("least_share", static_cast<double>(*least) / static_cast<double>(*most));
    }

    // The private memory that a pool takes, after one task has run.
    static void idle(Run& run) {
        Counter counter{0};
        kiB("smaps_rollup", "Private_Dirty:");
        double const before = kiB("smaps_rollup", "Private_Dirty:");
        Pool pool(1);
        Ticket ticket = pool.submit(Count{&counter}, JobPriority::NORMAL, "task");
        Pool::wait(ticket);
        ticket = Ticket();
        run.report("kib", kiB("smaps_rollup", "Private_Dirty:") - before);
        requireRun(run, counter, 1);
    }
};

}  // namespace ovra::bench
