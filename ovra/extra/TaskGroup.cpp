#include <ovra/extra/TaskGroup.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>
#include <vector>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/Later.h>

namespace ovra::extra {

namespace {

using Callback = std::function<void(std::shared_ptr<concurrent::Task>)>;
using Handle = std::shared_ptr<concurrent::TaskHandle>;

}  // namespace

// The handles of the pending tasks, each empty until its submission has returned. Shared by the
// group and its tasks.
class TaskGroup::Tasks : public std::enable_shared_from_this<Tasks> {
public:
    explicit Tasks(std::size_t most) : limit(most) {}

    // `submission` gets the callback to submit with.
    template <typename Submission>
    Handle submit(Callback const& callback, Submission const& submission) {
        auto const pendingTask = std::make_shared<Pending>(shared_from_this(), callback);
        if (!pendingTask->begin()) {
            return nullptr;
        }
        Handle handle = submission([pendingTask](std::shared_ptr<concurrent::Task> const& task) {
            pendingTask->callBack(task);
        });
        pendingTask->setHandle(handle);
        return handle;
    }

    std::size_t count() {
        std::lock_guard<std::mutex> const lock(mutex);
        return handles.size();
    }

    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return handles.empty(); });
    }

    bool waitUntil(std::chrono::steady_clock::time_point end) {
        std::unique_lock<std::mutex> lock(mutex);
        return condition.wait_until(lock, end, [this] { return handles.empty(); });
    }

    std::vector<Handle> allHandles() {
        std::lock_guard<std::mutex> const lock(mutex);
        return std::vector<Handle>(handles.begin(), handles.end());
    }

private:
    // A task from just before its submission to its end. Its callback owns it.
    class Pending {
    public:
        Pending(std::shared_ptr<Tasks> group, Callback const& original)
            : tasks(std::move(group)), callback(original) {}
        Pending(Pending const&) = delete;
        Pending& operator=(Pending const&) = delete;
        ~Pending() { end(); }

        // False at the limit.
        bool begin() {
            std::lock_guard<std::mutex> const lock(tasks->mutex);
            if (tasks->limit != 0 && tasks->handles.size() >= tasks->limit) {
                return false;
            }
            tasks->handles.splice(tasks->handles.end(), place);
            isCounted = true;
            return true;
        }
        void setHandle(Handle const& handle) {
            std::lock_guard<std::mutex> const lock(tasks->mutex);
            if (isCounted) {
                *position = handle;
            }
        }
        void callBack(std::shared_ptr<concurrent::Task> const& task) {
            struct End {
                ~End() { pending.end(); }
                Pending& pending;
            } const atEnd{*this};
            if (callback) {
                callback(task);
            }
        }

    private:
        void end() {
            std::list<Handle> ended;  // Destroyed without the lock.
            std::lock_guard<std::mutex> const lock(tasks->mutex);
            if (!isCounted) {
                return;
            }
            isCounted = false;
            ended.splice(ended.end(), tasks->handles, position);
            if (tasks->handles.empty()) {
                tasks->condition.notify_all();
            }
        }

        std::shared_ptr<Tasks> const tasks;
        Callback const callback;
        std::list<Handle> place{1};  // Moves to the tasks while this one is counted.
        std::list<Handle>::iterator const position = place.begin();
        bool isCounted = false;  // Guarded by the tasks' mutex.
    };

    std::size_t const limit;
    std::mutex mutex;
    std::condition_variable condition;  // No task is pending.
    std::list<Handle> handles;
};

TaskGroup::TaskGroup(std::shared_ptr<concurrent::TaskExecutor> groupExecutor, std::size_t limit)
    : executor(std::move(groupExecutor)), tasks(std::make_shared<Tasks>(limit)) {}

TaskGroup::~TaskGroup() = default;

Handle TaskGroup::submitTask(std::shared_ptr<concurrent::Task> const& task,
                             concurrent::TaskPriority priority, Callback const& callback) {
    KeptErrno const keptErrno;
    if (!executor || (!task && !callback)) {
        return nullptr;
    }
    return tasks->submit(callback, [&](Callback const& counted) {
        return executor->submitTask(task, priority, counted);
    });
}

Handle TaskGroup::submitTask(std::function<concurrent::Executable::Result()> const& function,
                             concurrent::TaskPriority priority, Callback const& callback,
                             char const* name) {
    KeptErrno const keptErrno;
    if (!executor || (!function && !callback)) {
        return nullptr;
    }
    return tasks->submit(callback, [&](Callback const& counted) {
        return executor->submitTask(function, priority, counted, name);
    });
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
    return tasks->waitUntil(later(std::chrono::steady_clock::now(), limit));
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
