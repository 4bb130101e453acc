#pragma once

#include <ovra/Export.h>
#include <ovra/concurrent/Executable.h>

namespace ovra::concurrent {

/// A named piece of work, the base class of what an application submits to a `TaskExecutor`.
///
/// *Ownership*: held through `std::shared_ptr` by the executor and handed to the completion
/// callback. The thread that releases the last reference destroys the task, and that thread is
/// often a worker. If the destructor of a task submits, it must not hold the last reference to the
/// executor on a worker: see `TaskExecutorImpl`.
class OVRA_API Task : public Executable {
public:
    Task() = default;
    /// For subclasses that are copied; an executor copies no task.
    Task(Task const&) = default;
    /// For subclasses that are assigned.
    Task& operator=(Task const&) = default;
    ~Task() override;

    /// The name that appears in log lines and, if it has at most the platform's 15 characters, on
    /// the worker thread. "Unnamed" unless overridden.
    ///
    /// Borrowed: the caller never frees it, and it must stay valid while the task exists. Called on
    /// a worker, where an exception ends the process.
    virtual char const* name() const;
};

}  // namespace ovra::concurrent
