#include <ovra/extra/internal/TaskMonitor.h>

#include <algorithm>
#include <cstdio>

namespace ovra::extra {

namespace {

using Time = std::chrono::steady_clock::time_point;
using std::chrono::milliseconds;

milliseconds inMilliseconds(std::chrono::steady_clock::duration length) {
    return std::chrono::duration_cast<milliseconds>(length);
}

bool isControlCharacter(char character) {
    constexpr unsigned char FIRST_PRINTABLE = 0x20;
    constexpr unsigned char DELETE = 0x7f;
    auto const code = static_cast<unsigned char>(character);
    return code < FIRST_PRINTABLE || code == DELETE;
}

}  // namespace

void TaskMonitor::Line::append(WatchedTask& task) {
    task.previous = tail;
    task.next = nullptr;
    (tail != nullptr ? tail->next : head) = &task;
    tail = &task;
    ++size;
}

void TaskMonitor::Line::remove(WatchedTask& task) {
    (task.previous != nullptr ? task.previous->next : head) = task.next;
    (task.next != nullptr ? task.next->previous : tail) = task.previous;
    --size;
}

std::chrono::steady_clock::duration TaskMonitor::Line::ageOfFirst(Time now) const {
    return head != nullptr ? now - head->since : Clock::duration::zero();
}

// Unless it has begun already.
void TaskMonitor::accepted(WatchedTask& task) {
    std::lock_guard<std::mutex> const lock(mutex);
    if (task.stage == WatchedTask::Stage::NEW) {
        ++counts.submitted;
        task.stage = WatchedTask::Stage::WAITING;
        task.since = Clock::now();
        waiting.append(task);
    }
}

void TaskMonitor::refused() {
    std::lock_guard<std::mutex> const lock(mutex);
    ++counts.refused;
}

void TaskMonitor::begin(WatchedTask& task) {
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

void TaskMonitor::end(WatchedTask& task) {
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

TaskCounts TaskMonitor::read() {
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
std::string TaskMonitor::describe() {
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
        char ending[40];
        std::snprintf(ending, sizeof ending, " %s %lld ms\n", isRunning ? "running" : "waiting",
                      static_cast<long long>(inMilliseconds(now - task->since).count()));
        text += ending;
        task = task->next;
    }
    return text;
}

WatchedTask::WatchedTask(std::shared_ptr<TaskMonitor> const& owner,
                         std::shared_ptr<concurrent::Task> const& submitted,
                         std::function<Result()> const& submittedFunction,
                         std::function<void(std::shared_ptr<concurrent::Task>)> const& original,
                         char const* name)
    : shownName(name),
      monitor(owner),
      task(submitted),
      function(submittedFunction),
      callback(original) {}

// Nobody else has the task any more: its stage needs no lock.
WatchedTask::~WatchedTask() {
    if (stage != Stage::ENDED) {
        monitor->end(*this);
    }
}

concurrent::Executable::Result WatchedTask::execute() {
    if (!hasRun) {
        hasRun = true;
        monitor->begin(*this);
    }
    hasFailed = true;  // Unless it returns.
    Result const result = task ? task->execute() : function();
    hasFailed = result == FAILURE;
    return result;
}

char const* WatchedTask::name() const {
    return task ? task->name() : shownName;
}

void WatchedTask::callBack(std::shared_ptr<concurrent::Task> const& given) {
    struct End {
        ~End() { watched.monitor->end(watched); }
        WatchedTask& watched;
    } const atEnd{*this};
    if (!hasRun) {
        monitor->begin(*this);
    }
    if (callback) {
        callback(task ? task : given);
    }
}

}  // namespace ovra::extra
