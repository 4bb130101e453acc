#include <ovra/extra/ScheduledTasks.h>

#include <utility>

#include <ovra/extra/internal/KeptErrno.h>
#include <ovra/extra/internal/ScheduleThread.h>

namespace ovra::extra {

namespace {

using Work = std::function<concurrent::Executable::Result()>;
using std::chrono::milliseconds;

std::uint64_t add(ScheduleThread& thread, milliseconds delay, milliseconds period, Work& function,
                  concurrent::TaskPriority priority, char const* name) {
    if (!function) {
        return 0;
    }
    auto const job = std::make_shared<ScheduledJob>();
    job->function = std::move(function);
    job->priority = priority;
    if (name != nullptr) {
        job->name = name;
    }
    return thread.add(delay, period, job);
}

}  // namespace

ScheduledTasks::ScheduledTasks(std::shared_ptr<concurrent::TaskExecutor> executor)
    : thread(new ScheduleThread(std::move(executor))) {}

ScheduledTasks::~ScheduledTasks() {
    KeptErrno const keptErrno;
    thread->stop();
}

std::uint64_t ScheduledTasks::after(milliseconds delay, Work function,
                                    concurrent::TaskPriority priority, char const* name) {
    KeptErrno const keptErrno;
    return add(*thread, delay, milliseconds::zero(), function, priority, name);
}

std::uint64_t ScheduledTasks::every(milliseconds period, Work function,
                                    concurrent::TaskPriority priority, char const* name) {
    KeptErrno const keptErrno;
    if (period <= milliseconds::zero()) {
        return 0;
    }
    return add(*thread, period, period, function, priority, name);
}

bool ScheduledTasks::cancel(std::uint64_t id) {
    KeptErrno const keptErrno;
    return thread->remove(id);
}

}  // namespace ovra::extra
