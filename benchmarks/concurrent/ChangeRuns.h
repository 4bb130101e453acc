#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <benchmarks/concurrent/ClosedGate.h>
#include <benchmarks/concurrent/Tasks.h>
#include <benchmarks/support/Clock.h>

namespace ovra::bench {

/// Changes to tasks that are queued: `n` of one priority, `changes` of them chosen at random.
template <typename Pool>
class ChangeRuns {
public:
    static bool add(std::string const& pool) {
        return Run::add("reprioritise", pool,
                        [](Run& run) {
                            atOnce(run, [](Pool& tasks, Ticket& ticket) {
                                tasks.reprioritise(ticket, JobPriority::HIGH);
                            });
                        }) &&
               Run::add("cancel", pool,
                        [](Run& run) {
                            atOnce(run, [](Pool& tasks, Ticket& ticket) { tasks.cancel(ticket); });
                        }) &&
               Run::add("reprioritise-between", pool, betweenPicks);
    }

private:
    using Ticket = typename Pool::Ticket;

    static std::vector<std::size_t> shuffled(std::size_t count) {
        std::vector<std::size_t> order;
        for (std::size_t i = 0; i < count; ++i) {
            order.push_back(i);
        }
        std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
        return order;
    }

    template <typename Change>
    static void atOnce(Run& run, Change const& apply) {
        std::size_t const count = static_cast<std::size_t>(run.number("n", 10000));
        std::vector<std::size_t> chosen = shuffled(count);
        chosen.resize(static_cast<std::size_t>(run.number("changes", 2500)));
        std::int64_t const rounds = run.number("rounds", 2);
        Pool pool(1);
        Counter counter{0};
        std::vector<Ticket> tickets;
        tickets.reserve(count);
        Stopwatch changing;
        double all = 0;
        for (std::int64_t round = 0; round < rounds; ++round) {
            ClosedGate<Pool> gate(pool, 1);
            for (std::size_t i = 0; i < count; ++i) {
                tickets.push_back(pool.submit(Count{&counter}, JobPriority::NORMAL, "task"));
            }
            double const processorBefore = processorSeconds();
            changing.start();
            for (std::size_t index : chosen) {
                apply(pool, tickets[index]);
            }
            changing.stop();
            gate.open();
            waitFromLast<Pool>(tickets);
            tickets.clear();
            all += processorSeconds() - processorBefore;
        }
        double const changes = static_cast<double>(rounds) * static_cast<double>(chosen.size());
        run.report("ns", changing.nanoseconds(changes));
        run.report("cpu_ns", changing.cpuNanoseconds(changes));
        run.report("all_cpu_ns",
                   all * 1e9 / (static_cast<double>(rounds) * static_cast<double>(count)));
    }

    // Each of the first tasks to run gives a new priority to one that may still be queued.
    static void betweenPicks(Run& run) {
        std::size_t const count = static_cast<std::size_t>(run.number("n", 10000));
        std::size_t const changes = static_cast<std::size_t>(run.number("changes", 2500));
        std::vector<std::size_t> const chosen = shuffled(count);
        Pool pool(1);
        std::size_t ran = 0;  // Used by the only worker.
        std::vector<Ticket> tickets;
        tickets.reserve(count);
        ClosedGate<Pool> gate(pool, 1);
        auto const changeOne = [&pool, &ran, &tickets, &chosen, changes] {
            if (ran < changes) {
                pool.reprioritise(tickets[chosen[ran]], jobPriorityOf(std::int64_t(ran)));
            }
            ++ran;
        };
        for (std::size_t i = 0; i < count; ++i) {
            tickets.push_back(pool.submit(changeOne, jobPriorityOf(std::int64_t(i)), "task"));
        }
        double const processorBefore = processorSeconds();
        gate.open();
        waitFromFirst<Pool>(tickets);
        run.report("all_cpu_ns",
                   (processorSeconds() - processorBefore) * 1e9 / static_cast<double>(count));
        if (ran != count) {
            run.fail("Not every task ran.");
        }
    }
};

}  // namespace ovra::bench
