#include <thread>

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>
#include <Poco/PriorityNotificationQueue.h>

#include <benchmarks/concurrent/PoolRuns.h>

namespace ovra::bench {

namespace {

class PocoPool {
public:
    using Ticket = bench::Ticket;

    explicit PocoPool(int workers) {
        for (int i = 0; i < workers; ++i) {
            threads.emplace_back([this] { run(); });
        }
    }
    PocoPool(PocoPool const&) = delete;
    PocoPool& operator=(PocoPool const&) = delete;
    ~PocoPool() {
        for (std::size_t i = 0; i < threads.size(); ++i) {
            queue.enqueueNotification(new Poco::Notification, LAST);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    template <typename Work>
    Ticket submit(Work const& work, JobPriority priority, char const* name) {
        Poco::AutoPtr<JobOf<Work>> job(new JobOf<Work>(work, name));
        Ticket ticket = job->work.ticket();
        queue.enqueueNotification(job, LAST - 1 - static_cast<int>(priority));
        return ticket;
    }
    static void wait(Ticket& ticket) { ticket.get(); }

private:
    static constexpr int LAST = 4;  // The smallest number comes first.

    struct AnyJob : Poco::Notification {
        virtual void run() = 0;
    };

    template <typename Work>
    struct JobOf : AnyJob {
        JobOf(Work const& jobWork, char const* name) : work(jobWork, name) {}
        void run() override { work(); }

        Job<Work> work;
    };

    void run() {
        while (true) {
            Poco::AutoPtr<Poco::Notification> next(queue.waitDequeueNotification());
            auto* const job = dynamic_cast<AnyJob*>(next.get());
            if (job == nullptr) {
                return;
            }
            job->run();
        }
    }

    Poco::PriorityNotificationQueue queue;
    std::vector<std::thread> threads;
};

[[maybe_unused]] bool const isAdded = addPool<PocoPool>("Poco PriorityNotificationQueue");

}  // namespace

}  // namespace ovra::bench
