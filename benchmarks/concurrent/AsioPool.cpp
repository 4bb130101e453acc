#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

// Knows no priorities: an easier job.
class AsioPool {
public:
    using Ticket = bench::Ticket;

    explicit AsioPool(int workers) : pool(static_cast<std::size_t>(workers)) {}

    template <typename Work>
    Ticket submit(Work const& work, JobPriority, char const* name) {
        Job<Work> job(work, name);
        Ticket ticket = job.ticket();
        boost::asio::post(pool, std::move(job));
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.get(); }

private:
    boost::asio::thread_pool pool;
};

[[maybe_unused]] bool const isAdded = addPool<AsioPool>("Boost.Asio");

}  // namespace

}  // namespace ovra::bench
