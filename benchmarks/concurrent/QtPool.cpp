#include <QtCore/QRunnable>
#include <QtCore/QThreadPool>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

class QtPool {
public:
    struct AnyRunnable : QRunnable {
        virtual void abandon() = 0;
    };
    struct Ticket {
        AnyRunnable* runnable;  // The pool deletes it once it has run.
        bench::Ticket done;
    };

    explicit QtPool(int workers) {
        pool.setMaxThreadCount(workers);
        pool.setExpiryTimeout(-1);
    }

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        auto* const runnable = new Runnable<Work>(work, name);
        Ticket ticket{runnable, runnable->work.ticket()};
        pool.start(runnable, static_cast<int>(priority));
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.done.get(); }
    void reprioritise(Ticket& ticket, JobPriority priority) {
        if (pool.tryTake(ticket.runnable)) {
            pool.start(ticket.runnable, static_cast<int>(priority));
        }
    }
    void cancel(Ticket& ticket) {
        if (pool.tryTake(ticket.runnable)) {
            ticket.runnable->abandon();
            delete ticket.runnable;
        }
    }

private:
    template <typename Work>
    struct Runnable : AnyRunnable {
        Runnable(Work const& jobWork, char const* name) : work(jobWork, name) {}
        void run() override { work(); }
        void abandon() override { work.abandon(); }

        Job<Work> work;
    };

    QThreadPool pool;
};

[[maybe_unused]] bool const isAdded = addChangeablePool<QtPool>("QThreadPool");

}  // namespace

}  // namespace ovra::bench
