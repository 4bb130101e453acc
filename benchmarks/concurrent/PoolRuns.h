#pragma once

#include <string>

#include <benchmarks/concurrent/BurstRuns.h>
#include <benchmarks/concurrent/ChangeRuns.h>
#include <benchmarks/concurrent/FlowRuns.h>

namespace ovra::bench {

/// Adds what is measured of every pool. A `Pool` has
///
///     explicit Pool(int workers);
///     using Ticket = ...;
///     template <typename Work> Ticket submit(Work const& work, JobPriority priority, char const*
///     name); static void wait(Ticket& ticket);
template <typename Pool>
bool addPool(std::string const& name) {
    return BurstRuns<Pool>::add(name) && FlowRuns<Pool>::add(name);
}

/// The same of a pool that can change a queued task: `reprioritise(Ticket&, JobPriority)` and
/// `cancel(Ticket&)`, also from within a task.
template <typename Pool>
bool addChangeablePool(std::string const& name) {
    return addPool<Pool>(name) && ChangeRuns<Pool>::add(name);
}

}  // namespace ovra::bench
