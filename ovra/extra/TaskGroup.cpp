#include <ovra/extra/TaskGroup.h>

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include <ovra/extra/internal/Clock.h>
#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/Later.h>

namespace ovra::extra {

namespace {

using Callback = std::function<void(std::shared_ptr<concurrent::Task>)>;
using Handle = std::shared_ptr<concurrent::TaskHandle>;

}  // namespace

// The pending tasks. Shared by the group and its tasks.
class TaskGroup::Tasks {
public:
    // A task from just before its submission to its end. Its callback owns it.
    class Pending {
    public:
        Pending(std::shared_ptr<Tasks> const& group, Callback const& original);
        Pending(Pending const&) = delete;
        Pending& operator=(Pending const&) = delete;
        ~Pending();

        // Counts the task. False at the limit.
        bool begin();
        // Keeps the handle as long as the task is counted.
        Handle keep(Handle handle);
        void callBack(std::shared_ptr<concurrent::Task> const& task);
        // The callback to submit with.
        static Callback callbackOf(std::shared_ptr<Pending> const& pendingTask);

        // Guarded by the tasks' mutex.
        Handle handle;
        Pending* previous = nullptr;
        Pending* next = nullptr;

    private:
        void end();

        std::shared_ptr<Tasks> const tasks;
        Callback const callback;
        bool isCounted = false;  // Guarded by the tasks' mutex.
    };

    explicit Tasks(std::size_t most) : limit(most) {}

    std::size_t count() {
        std::lock_guard<std::mutex> const lock(mutex);
        return size;
    }

    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        while (size > 0) {
            condition.wait(lock);
        }
    }

    bool waitUntil(Clock::Time end) {
        std::unique_lock<std::mutex> lock(mutex);
        while (size > 0 && Clock::system().now() < end) {
            Clock::system().wait(condition, lock, end);
        }
        return size == 0;
    }

    std::vector<Handle> allHandles() {
        std::lock_guard<std::mutex> const lock(mutex);
        std::vector<Handle> handles;
        for (Pending const* pending = first; pending != nullptr; pending = pending->next) {
            handles.push_back(pending->handle);
        }
        return handles;
    }

private:
    std::size_t const limit;
    std::mutex mutex;
    std::condition_variable condition;  // No task is pending.
    Pending* first = nullptr;
    std::size_t size = 0;
};

TaskGroup::Tasks::Pending::Pending(std::shared_ptr<Tasks> const& group, Callback const& original)
    : tasks(group), callback(original) {}

TaskGroup::Tasks::Pending::~Pending() {
    end();
}

bool TaskGroup::Tasks::Pending::begin() {
    std::lock_guard<std::mutex> const lock(tasks->mutex);
    if (tasks->limit != 0 && tasks->size >= tasks->limit) {
        return false;
    }
    next = tasks->first;
    if (next != nullptr) {
        next->previous = this;
    }
    tasks->first = this;
    ++tasks->size;
    isCounted = true;
    return true;
}

Handle TaskGroup::Tasks::Pending::keep(Handle handleOfTask) {
    std::lock_guard<std::mutex> const lock(tasks->mutex);
    if (isCounted) {
        handle = handleOfTask;
    }
    return handleOfTask;
}

void TaskGroup::Tasks::Pending::callBack(std::shared_ptr<concurrent::Task> const& task) {
    struct End {
        ~End() { pending.end(); }
        Pending& pending;
    } const atEnd{*this};
    if (callback) {
        callback(task);
    }
}

void TaskGroup::Tasks::Pending::end() {
    Handle released;  // Without the lock.
    std::lock_guard<std::mutex> const lock(tasks->mutex);
    if (!isCounted) {
        return;
    }
    isCounted = false;
    released.swap(handle);
    (previous != nullptr ? previous->next : tasks->first) = next;
    if (next != nullptr) {
        next->previous = previous;
    }
    if (--tasks->size == 0) {
        tasks->condition.notify_all();
    }
}

Callback TaskGroup::Tasks::Pending::callbackOf(std::shared_ptr<Pending> const& pendingTask) {
    return [pendingTask](std::shared_ptr<concurrent::Task> const& task) {
        pendingTask->callBack(task);
    };
}

TaskGroup::TaskGroup(std::shared_ptr<concurrent::TaskExecutor> groupExecutor, std::size_t limit)
    : executor(std::move(groupExecutor)), tasks(std::make_shared<Tasks>(limit)) {}

TaskGroup::~TaskGroup() = default;

Handle TaskGroup::submitTask(std::shared_ptr<concurrent::Task> const& task,
                             concurrent::TaskPriority priority, Callback const& callback) {
    KeptErrno const keptErrno;
    if (!executor || (!task && !callback)) {
        return nullptr;
    }
    auto const pendingTask = std::make_shared<Tasks::Pending>(tasks, callback);
    if (!pendingTask->begin()) {
        return nullptr;
    }
    return pendingTask->keep(
        executor->submitTask(task, priority, Tasks::Pending::callbackOf(pendingTask)));
}

Handle TaskGroup::submitTask(std::function<concurrent::Executable::Result()> const& function,
                             concurrent::TaskPriority priority, Callback const& callback,
                             char const* name) {
    KeptErrno const keptErrno;
    if (!executor || (!function && !callback)) {
        return nullptr;
    }
    auto const pendingTask = std::make_shared<Tasks::Pending>(tasks, callback);
    if (!pendingTask->begin()) {
        return nullptr;
    }
    return pendingTask->keep(
        executor->submitTask(function, priority, Tasks::Pending::callbackOf(pendingTask), name));
}

std::size_t TaskGroup::pending() const {
    return tasks->count();
}

void TaskGroup::wait() {
    KeptErrno const keptErrno;
    tasks->wait();
}

bool TaskGroup::waitFor(std::chrono::milliseconds limit) {
    KeptErrno const keptErrno;
    return tasks->waitUntil(later(Clock::system().now(), limit));
}

void TaskGroup::cancelAll() {
    KeptErrno const keptErrno;
    for (Handle const& handle : tasks->allHandles()) {
        if (handle && !handle->isDone()) {
            handle->cancel();
        }
    }
}

}  // namespace ovra::extra
