#pragma once

#include <vector>

#include <benchmarks/concurrent/Gate.h>
#include <benchmarks/concurrent/Job.h>

namespace ovra::bench {

/// Keeps every worker of a pool busy until it is opened, so that what is submitted has to queue.
template <typename Pool>
class ClosedGate {
public:
    ClosedGate(Pool& pool, int workers) {
        auto const pass = [this] { gate.pass(); };
        for (int i = 0; i < workers; ++i) {
            passing.push_back(pool.submit(pass, JobPriority::HIGH, "gate"));
        }
        gate.awaitArrivals(workers);
    }
    ClosedGate(ClosedGate const&) = delete;
    ClosedGate& operator=(ClosedGate const&) = delete;
    ~ClosedGate() {
        for (typename Pool::Ticket& ticket : passing) {
            Pool::wait(ticket);
        }
    }
    void open() { gate.open(); }

private:
    Gate gate;
    std::vector<typename Pool::Ticket> passing;
};

}  // namespace ovra::bench
