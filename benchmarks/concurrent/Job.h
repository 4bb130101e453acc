#pragma once

#include <pthread.h>

#include <future>
#include <utility>

namespace ovra::bench {

enum class JobPriority { LOW, NORMAL, HIGH };

using Ticket = std::future<bool>;

/// What an executor's task has and a peer's job lacks: a name for the thread that runs it, and a
/// result to wait for.
///
/// Callable while constant, as some peers ask of what they run.
template <typename Work>
class Job {
public:
    Job(Work jobWork, char const* jobName) : work(std::move(jobWork)), name(jobName) {}

    Ticket ticket() { return promise.get_future(); }

    void operator()() const {
        pthread_setname_np(pthread_self(), name);
        work();
        promise.set_value(true);
    }

    void abandon() { promise.set_value(false); }

private:
    Work work;
    char const* name;
    mutable std::promise<bool> promise;
};

}  // namespace ovra::bench
