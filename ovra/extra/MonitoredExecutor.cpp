#include <ovra/extra/MonitoredExecutor.h>

#include <string>
#include <utility>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/TaskMonitor.h>
#include <ovra/extra/internal/WriteWhole.h>

namespace ovra::extra {

namespace {

using Callback = std::function<void(std::shared_ptr<concurrent::Task>)>;
using Work = std::function<concurrent::Executable::Result()>;

// A class with a name: that of a lambda would hold all the parameters of submit(), and is part of
// the library's size.
struct EndOfTask {
    void operator()(std::shared_ptr<concurrent::Task> const& given) const { task->callBack(given); }

    WatchedTask* task;  // The executor keeps it for this call.
};

}  // namespace

MonitoredExecutor::MonitoredExecutor(std::shared_ptr<concurrent::TaskExecutor> watchedExecutor)
    : executor(std::move(watchedExecutor)), monitor(std::make_shared<TaskMonitor>()) {}

MonitoredExecutor::~MonitoredExecutor() = default;

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submitTask(
    std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority priority,
    Callback const& callback) {
    KeptErrno const keptErrno;
    if (!task) {
        return executor ? executor->submitTask(task, priority, callback) : nullptr;
    }
    return submit(task, nullptr, priority, callback, task->name());
}

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submitTask(
    Work const& function, concurrent::TaskPriority priority, Callback const& callback,
    char const* name) {
    KeptErrno const keptErrno;
    if (!function && !callback) {
        monitor->refused();
        return nullptr;
    }
    return submit(nullptr, function, priority, callback, name);
}

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submit(
    std::shared_ptr<concurrent::Task> const& task, Work const& function,
    concurrent::TaskPriority priority, Callback const& callback, char const* name) {
    if (!executor) {
        monitor->refused();
        return nullptr;
    }
    auto const watched = std::make_shared<WatchedTask>(monitor, task, function, callback, name);
    auto handle = executor->submitTask(watched, priority, EndOfTask{watched.get()});
    if (handle) {
        monitor->accepted(*watched);
    } else {
        monitor->refused();
    }
    return handle;
}

bool MonitoredExecutor::isIdle() {
    KeptErrno const keptErrno;
    return !executor || executor->isIdle();
}

TaskCounts MonitoredExecutor::counts() const {
    return monitor->read();
}

bool MonitoredExecutor::writeTo(int descriptor) const {
    KeptErrno const keptErrno;
    std::string const text = monitor->describe();
    return writeWhole(descriptor, text.data(), text.size());
}

}  // namespace ovra::extra
