#include <ovra/extra/MonitoredExecutor.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/WriteWhole.h>

namespace ovra::extra {

namespace {

using Callback = std::function<void(std::shared_ptr<concurrent::Task>)>;
using Work = std::function<concurrent::Executable::Result()>;
using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::milliseconds;

milliseconds inMilliseconds(Clock::duration length) {
    return std::chrono::duration_cast<milliseconds>(length);
}

bool isControlCharacter(char character) {
    constexpr unsigned char FIRST_PRINTABLE = 0x20;
    constexpr unsigned char DELETE = 0x7f;
    auto const code = static_cast<unsigned char>(character);
    return code < FIRST_PRINTABLE || code == DELETE;
}

}  // namespace

// What is counted. Shared by the executor and its tasks.
class MonitoredExecutor::Monitor {
public:
    void accepted(WatchedTask& task);
    void refused();
    void begin(WatchedTask& task);
    void end(WatchedTask& task);

    TaskCounts read();
    std::string describe();

private:
    // Tasks in the order in which they came.
    class Line {
    public:
        void append(WatchedTask& task);
        void remove(WatchedTask& task);
        WatchedTask* first() const { return head; }
        std::uint64_t count() const { return size; }
        Clock::duration ageOfFirst(Time now) const;

    private:
        WatchedTask* head = nullptr;
        WatchedTask* tail = nullptr;
        std::uint64_t size = 0;
    };

    // Guards everything, and `stage`, `since` and the links of the tasks. The clock is read under
    // it, so that the lines are in order of time.
    std::mutex mutex;
    TaskCounts counts{};
    Line waiting;
    Line running;
    Clock::duration longestWait{};
    Clock::duration longestRun{};
};

// Takes the place of the submitted task, or makes one of a function.
class MonitoredExecutor::WatchedTask : public concurrent::Task {
public:
    enum class Stage { NEW, WAITING, RUNNING, ENDED };

    WatchedTask(std::shared_ptr<Monitor> owner, std::shared_ptr<concurrent::Task> submitted,
                Callback const& original)
        : shownName(submitted->name()),
          monitor(std::move(owner)),
          task(std::move(submitted)),
          callback(original) {}
    WatchedTask(std::shared_ptr<Monitor> owner, Work const& submitted, char const* name,
                Callback const& original)
        : shownName(name), monitor(std::move(owner)), function(submitted), callback(original) {}
    WatchedTask(WatchedTask const&) = delete;
    WatchedTask& operator=(WatchedTask const&) = delete;
    ~WatchedTask() override { monitor->end(*this); }

    Result execute() override {
        if (!hasRun) {
            hasRun = true;
            monitor->begin(*this);
        }
        hasFailed = true;  // Unless it returns.
        Result const result = task ? task->execute() : function();
        hasFailed = result == FAILURE;
        return result;
    }
    char const* name() const override { return task ? task->name() : shownName; }

    void callBack(std::shared_ptr<concurrent::Task> const& given) {
        struct End {
            ~End() { task.monitor->end(task); }
            WatchedTask& task;
        } const atEnd{*this};
        if (!hasRun) {
            monitor->begin(*this);
        }
        if (callback) {
            callback(task ? task : given);
        }
    }

    char const* const shownName;
    bool hasRun = false;  // These two belong to the worker.
    bool hasFailed = false;
    Stage stage = Stage::NEW;
    Time since;
    WatchedTask* previous = nullptr;
    WatchedTask* next = nullptr;

private:
    std::shared_ptr<Monitor> const monitor;
    std::shared_ptr<concurrent::Task> const task;
    Work const function;
    Callback const callback;
};

void MonitoredExecutor::Monitor::Line::append(WatchedTask& task) {
    task.previous = tail;
    task.next = nullptr;
    (tail != nullptr ? tail->next : head) = &task;
    tail = &task;
    ++size;
}

void MonitoredExecutor::Monitor::Line::remove(WatchedTask& task) {
    (task.previous != nullptr ? task.previous->next : head) = task.next;
    (task.next != nullptr ? task.next->previous : tail) = task.previous;
    --size;
}

Clock::duration MonitoredExecutor::Monitor::Line::ageOfFirst(Time now) const {
    return head != nullptr ? now - head->since : Clock::duration::zero();
}

// Unless it has begun already.
void MonitoredExecutor::Monitor::accepted(WatchedTask& task) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (task.stage == WatchedTask::Stage::NEW) {
        ++counts.submitted;
        task.stage = WatchedTask::Stage::WAITING;
        task.since = Clock::now();
        waiting.append(task);
    }
}

void MonitoredExecutor::Monitor::refused() {
    std::lock_guard<std::mutex> const lock(mutex);
    ++counts.refused;
}

void MonitoredExecutor::Monitor::begin(WatchedTask& task) {
    std::lock_guard<std::mutex> const lock(mutex);
    Time const now = Clock::now();
    if (task.stage == WatchedTask::Stage::ENDED) {
        return;  // The application runs a task that it was called back with.
    }
    if (task.stage == WatchedTask::Stage::NEW) {
        ++counts.submitted;  // Begun before its submission has returned.
    } else {
        waiting.remove(task);
        if (task.hasRun) {
            longestWait = std::max(longestWait, now - task.since);
        }
    }
    task.stage = WatchedTask::Stage::RUNNING;
    task.since = now;
    running.append(task);
}

void MonitoredExecutor::Monitor::end(WatchedTask& task) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (task.stage == WatchedTask::Stage::WAITING) {
        waiting.remove(task);
        ++counts.dropped;
    } else if (task.stage == WatchedTask::Stage::RUNNING) {
        running.remove(task);
        if (task.hasRun) {
            longestRun = std::max(longestRun, Clock::now() - task.since);
            ++counts.ended;
            counts.failed += task.hasFailed ? 1 : 0;
        } else {
            ++counts.dropped;
        }
    }
    task.stage = WatchedTask::Stage::ENDED;
}

TaskCounts MonitoredExecutor::Monitor::read() {
    std::lock_guard<std::mutex> const lock(mutex);
    Time const now = Clock::now();
    TaskCounts result = counts;
    result.waiting = waiting.count();
    result.running = running.count();
    result.longestWait = inMilliseconds(longestWait);
    result.longestRun = inMilliseconds(longestRun);
    result.oldestWaiting = inMilliseconds(waiting.ageOfFirst(now));
    result.oldestRunning = inMilliseconds(running.ageOfFirst(now));
    return result;
}

// The names are copied under the lock: a task leaves its line before it is destroyed.
std::string MonitoredExecutor::Monitor::describe() {
    std::string text;
    std::lock_guard<std::mutex> const lock(mutex);
    Time const now = Clock::now();
    WatchedTask const* nextWaiting = waiting.first();
    WatchedTask const* nextRunning = running.first();
    while (nextWaiting != nullptr || nextRunning != nullptr) {
        bool const isRunning = nextWaiting == nullptr ||
                               (nextRunning != nullptr && nextRunning->since <= nextWaiting->since);
        WatchedTask const*& task = isRunning ? nextRunning : nextWaiting;
        std::size_t const begin = text.size();
        text += task->shownName != nullptr ? task->shownName : "unnamed";
        std::replace_if(text.begin() + static_cast<std::ptrdiff_t>(begin), text.end(),
                        isControlCharacter, '?');
        text += isRunning ? " running " : " waiting ";
        text += std::to_string(inMilliseconds(now - task->since).count());
        text += " ms\n";
        task = task->next;
    }
    return text;
}

MonitoredExecutor::MonitoredExecutor(std::shared_ptr<concurrent::TaskExecutor> watchedExecutor)
    : executor(std::move(watchedExecutor)), monitor(std::make_shared<Monitor>()) {}

MonitoredExecutor::~MonitoredExecutor() = default;

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submitTask(
    std::shared_ptr<concurrent::Task> const& task, concurrent::TaskPriority priority,
    Callback const& callback) {
    KeptErrno const keptErrno;
    if (!task) {
        return executor ? executor->submitTask(task, priority, callback) : nullptr;
    }
    return submit(std::make_shared<WatchedTask>(monitor, task, callback), priority);
}

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submitTask(
    Work const& function, concurrent::TaskPriority priority, Callback const& callback,
    char const* name) {
    KeptErrno const keptErrno;
    if (!function && !callback) {
        monitor->refused();
        return nullptr;
    }
    return submit(std::make_shared<WatchedTask>(monitor, function, name, callback), priority);
}

std::shared_ptr<concurrent::TaskHandle> MonitoredExecutor::submit(
    std::shared_ptr<WatchedTask> const& task, concurrent::TaskPriority priority) {
    if (!executor) {
        monitor->refused();
        return nullptr;
    }
    // The executor keeps the task for its callback.
    auto handle = executor->submitTask(
        task, priority, [watched = task.get()](std::shared_ptr<concurrent::Task> const& given) {
            watched->callBack(given);
        });
    if (handle) {
        monitor->accepted(*task);
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
