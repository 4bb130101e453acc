#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/task_arena.h>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

// An arena for each priority; no order within one: an easier job.
class TbbPool {
public:
    using Ticket = bench::Ticket;

    explicit TbbPool(int workers)
        : limit(tbb::global_control::max_allowed_parallelism,
                static_cast<std::size_t>(workers) + 1),  // The caller counts.
          low(workers, 0, tbb::task_arena::priority::low),
          normal(workers, 0, tbb::task_arena::priority::normal),
          high(workers, 0, tbb::task_arena::priority::high) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        Job<Work> job(work, name);
        Ticket ticket = job.ticket();
        arenaOf(priority).enqueue(std::move(job));
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.get(); }

private:
    tbb::task_arena& arenaOf(JobPriority priority) {
        switch (priority) {
            case JobPriority::HIGH:
                return high;
            case JobPriority::NORMAL:
                return normal;
            case JobPriority::LOW:
                break;
        }
        return low;
    }

    tbb::global_control limit;
    tbb::task_arena low;
    tbb::task_arena normal;
    tbb::task_arena high;
};

[[maybe_unused]] bool const isAdded = addPool<TbbPool>("oneTBB");

}  // namespace

}  // namespace ovra::bench
