#include <glib.h>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

class GlibPool {
public:
    using Ticket = bench::Ticket;

    explicit GlibPool(int workers)
        : pool(g_thread_pool_new([](gpointer job, gpointer) { static_cast<AnyJob*>(job)->run(); },
                                 nullptr, workers, TRUE, nullptr)) {
        g_thread_pool_set_sort_function(pool, &compare, nullptr);
    }
    GlibPool(GlibPool const&) = delete;
    GlibPool& operator=(GlibPool const&) = delete;
    ~GlibPool() { g_thread_pool_free(pool, FALSE, TRUE); }

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        auto* const job = new JobOf<Work>(work, priority, name);
        Ticket ticket = job->work.ticket();
        g_thread_pool_push(pool, job, nullptr);
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.get(); }

private:
    struct AnyJob {
        explicit AnyJob(JobPriority jobPriority) : priority(jobPriority) {}
        virtual ~AnyJob() = default;
        virtual void run() = 0;

        JobPriority const priority;
    };

    template <typename Work>
    struct JobOf : AnyJob {
        JobOf(Work const& jobWork, JobPriority jobPriority, char const* name)
            : AnyJob(jobPriority), work(jobWork, name) {}
        void run() override {
            work();
            delete this;
        }

        Job<Work> work;
    };

    static gint compare(gconstpointer left, gconstpointer right, gpointer) {
        return static_cast<gint>(static_cast<AnyJob const*>(right)->priority) -
               static_cast<gint>(static_cast<AnyJob const*>(left)->priority);
    }

    GThreadPool* pool;
};

[[maybe_unused]] bool const isAdded = addPool<GlibPool>("GThreadPool");

}  // namespace

}  // namespace ovra::bench
