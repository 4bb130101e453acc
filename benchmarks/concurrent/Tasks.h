#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include <benchmarks/concurrent/Job.h>
#include <benchmarks/support/Run.h>

namespace ovra::bench {

/// Counts the tasks that have run.
using Counter = std::atomic<std::int64_t>;

struct Count {
    void operator()() const { counter->fetch_add(1, std::memory_order_relaxed); }
    Counter* counter;
};

/// The three priorities in turn.
inline JobPriority jobPriorityOf(std::int64_t index) {
    static constexpr JobPriority PRIORITIES[] = {JobPriority::LOW, JobPriority::NORMAL,
                                                 JobPriority::HIGH};
    return PRIORITIES[index % 3];
}

inline void requireRun(Run& run, Counter const& counter, std::int64_t expected) {
    if (counter != expected) {
        run.fail("Not every task ran.");
    }
}

/// Waits from the last ticket to the first. Where the last task runs last, the first wait blocks
/// and those after it hardly ever do.
template <typename Pool>
void waitFromLast(std::vector<typename Pool::Ticket>& tickets) {
    for (auto ticket = tickets.rbegin(); ticket != tickets.rend(); ++ticket) {
        Pool::wait(*ticket);
    }
}

template <typename Pool>
void waitFromFirst(std::vector<typename Pool::Ticket>& tickets) {
    for (typename Pool::Ticket& ticket : tickets) {
        Pool::wait(ticket);
    }
}

}  // namespace ovra::bench
