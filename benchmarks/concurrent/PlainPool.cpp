#include <condition_variable>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

// The simplest pool: a heap of shared jobs under one lock.
class PlainPool {
public:
    struct AnyJob {
        virtual ~AnyJob() = default;
        virtual void run() = 0;
        virtual void abandon() = 0;

        bool isTaken = false;  // Guarded by the pool's mutex.
        std::atomic<bool> isCancelled{false};
    };
    struct Ticket {
        std::shared_ptr<AnyJob> job;
        bench::Ticket done;
    };

    explicit PlainPool(int workers) {
        for (int i = 0; i < workers; ++i) {
            threads.emplace_back([this] { run(); });
        }
    }
    PlainPool(PlainPool const&) = delete;
    PlainPool& operator=(PlainPool const&) = delete;
    ~PlainPool() {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            isClosed = true;
            condition.notify_all();
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        auto const job = std::make_shared<JobOf<Work>>(work, name);
        Ticket ticket{job, job->work.ticket()};
        push(job, priority);
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.done.get(); }
    // The old entry stays, and is skipped when its turn comes.
    void reprioritise(Ticket& ticket, JobPriority priority) { push(ticket.job, priority); }
    void cancel(Ticket& ticket) { ticket.job->isCancelled = true; }

private:
    template <typename Work>
    struct JobOf : AnyJob {
        JobOf(Work const& jobWork, char const* name) : work(jobWork, name) {}
        void run() override { work(); }
        void abandon() override { work.abandon(); }

        Job<Work> work;
    };

    struct Entry {
        bool operator<(Entry const& other) const {
            return priority != other.priority ? priority < other.priority : order > other.order;
        }

        JobPriority priority;
        std::uint64_t order;
        std::shared_ptr<AnyJob> job;
    };

    void push(std::shared_ptr<AnyJob> job, JobPriority priority) {
        std::lock_guard<std::mutex> const lock(mutex);
        entries.push(Entry{priority, ++pushedSoFar, std::move(job)});
        condition.notify_one();
    }

    void run() {
        std::unique_lock<std::mutex> lock(mutex);
        while (true) {
            condition.wait(lock, [this] { return isClosed || !entries.empty(); });
            if (entries.empty()) {
                return;
            }
            std::shared_ptr<AnyJob> const job = entries.top().job;
            entries.pop();
            if (std::exchange(job->isTaken, true)) {
                continue;
            }
            lock.unlock();
            if (job->isCancelled) {
                job->abandon();
            } else {
                job->run();
            }
            lock.lock();
        }
    }

    std::mutex mutex;
    std::condition_variable condition;
    std::priority_queue<Entry> entries;
    std::uint64_t pushedSoFar = 0;
    bool isClosed = false;
    std::vector<std::thread> threads;
};

[[maybe_unused]] bool const isAdded = addChangeablePool<PlainPool>("std::priority_queue");

}  // namespace

}  // namespace ovra::bench
