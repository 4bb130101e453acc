#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include <ovra/Export.h>

namespace ovra::concurrent {

class SubmittedTask;
class SubmittedTasksQueue;

/// One thread that takes tasks from a queue and runs them, one after the other.
///
/// *Ownership*: made and destroyed by a `TaskExecutorImpl`. The worker refers to the queue weakly.
/// Once the queue no longer exists, the worker keeps a processor busy until it is terminated. A
/// worker that waits for work holds a strong reference to its queue. To wake that worker, call the
/// queue's `close()`: releasing your reference does not wake it.
///
/// *Threads*: the owner calls `start()`, `terminate()` and the destructor, never on the worker's
/// own thread. The worker's thread calls `run()`. Work and callbacks run with no lock held.
///
/// *Failure*: an exception out of `run()` ends the process. Its only causes are an overridden
/// virtual operation, a submission that is run twice and a mutex that cannot be locked.
class OVRA_API TaskExecutorWorker {
public:
    /// Starts no thread yet.
    explicit TaskExecutorWorker(std::shared_ptr<SubmittedTasksQueue> const& source);
    TaskExecutorWorker(TaskExecutorWorker const&) = delete;
    TaskExecutorWorker& operator=(TaskExecutorWorker const&) = delete;
    /// Terminates the worker. Ends the process, after a line at `ERROR`, if the thread cannot be
    /// joined, as on the worker's own thread.
    virtual ~TaskExecutorWorker();

    /// Starts the thread. Throws `std::system_error` if the system provides none. Ends the process,
    /// after a line at `ERROR`, if the previous thread has not been joined. Start a worker once: a
    /// thread that is started after `terminate()` is never joined, and the destructor ends the
    /// process.
    void start();

    /// The worker thread's loop; returns once the worker is terminated, or finds its queue closed.
    ///
    /// Names the thread after each task it runs ("unnamed" for a null name). A name longer than the
    /// platform's 15 characters is not applied; the last name stays after the task.
    void run();

    /// Asks the worker to end after the task it is running, and joins it. Close the queue first:
    /// this does not wake a sleeping worker. A join that fails is logged at `ERROR`. A second call
    /// does nothing.
    void terminate();

private:
    OVRA_LOCAL void fetchTask();
    OVRA_LOCAL void runTask();
    OVRA_LOCAL bool waitForWork();

    std::thread thread;
    std::shared_ptr<SubmittedTask> currentTask;  // Used on `thread` only.
    std::weak_ptr<SubmittedTasksQueue> queue;
    std::atomic<std::int32_t> terminated{0};
};

}  // namespace ovra::concurrent
