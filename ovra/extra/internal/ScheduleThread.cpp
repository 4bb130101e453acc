#include <ovra/extra/internal/ScheduleThread.h>

#include <cxxabi.h>
#include <signal.h>

#include <atomic>
#include <utility>

#include <ovra/extra/internal/ForkCount.h>
#include <ovra/extra/internal/Later.h>

namespace ovra::extra {

namespace {

// Counted as ended by its callback, or when the executor drops it.
class ScheduledTask : public concurrent::Task {
public:
    explicit ScheduledTask(Schedules::Job submittedJob) : job(std::move(submittedJob)) {
        job->isUnderWay = true;
    }
    ScheduledTask(ScheduledTask const&) = delete;
    ScheduledTask& operator=(ScheduledTask const&) = delete;
    ~ScheduledTask() override { end(); }

    Result execute() override { return job->function(); }
    char const* name() const override { return job->name ? job->name->c_str() : nullptr; }
    // The job may be under way again when this task is destroyed.
    void end() {
        if (!hasEnded.exchange(true)) {
            job->isUnderWay = false;
        }
    }

private:
    Schedules::Job const job;
    std::atomic<bool> hasEnded{false};
};

class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before;
};

std::uint32_t countedForks() {
    countForks();
    return forkCount();
}

}  // namespace

ScheduleThread::ScheduleThread(std::shared_ptr<concurrent::TaskExecutor> servedExecutor,
                               Clock& usedClock)
    : executor(std::move(servedExecutor)), clock(usedClock), forksBefore(countedForks()) {}

std::uint64_t ScheduleThread::add(std::chrono::milliseconds delay, std::chrono::milliseconds period,
                                  Schedules::Job const& job) {
    if (!executor || isForked()) {
        return 0;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    if (!start()) {
        return 0;
    }
    Clock::Time const due = later(clock.now(), delay);
    if (due < schedules.nextDue()) {
        condition.notify_one();
    }
    return schedules.add(due, period, job);
}

bool ScheduleThread::remove(std::uint64_t id) {
    if (isForked()) {
        return false;
    }
    Schedules::Job removed;  // Destroyed without the lock.
    std::lock_guard<std::mutex> const lock(mutex);
    removed = schedules.remove(id);
    return removed != nullptr;
}

void ScheduleThread::stop() {
    if (isForked()) {
        return;
    }
    {
        std::lock_guard<std::mutex> const lock(mutex);
        isStopping = true;
        if (isStarted && pthread_equal(thread, pthread_self()) != 0) {
            isItsOwnOwner = true;
            return;
        }
        condition.notify_one();
    }
    if (isStarted) {
        pthread_join(thread, nullptr);
    }
    delete this;
}

bool ScheduleThread::isForked() const {
    return forkCount() != forksBefore;
}

bool ScheduleThread::start() {
    if (!isStarted) {
        SignalsBlocked const blocked;
        isStarted = pthread_create(&thread, nullptr, begin, this) == 0;
    }
    return isStarted;
}

void* ScheduleThread::begin(void* object) {
    auto* const self = static_cast<ScheduleThread*>(object);
    pthread_setname_np(pthread_self(), "ovra-scheduled");
    self->run();
    if (self->isItsOwnOwner) {
        pthread_detach(pthread_self());
        delete self;
    }
    return nullptr;
}

void ScheduleThread::run() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!isStopping) {
        Clock::Time const now = clock.now();
        Clock::Time const next = schedules.nextDue();
        if (next > now) {
            clock.wait(condition, lock, next);
            continue;
        }
        Schedules::Due due = schedules.takeDue(now);
        if (due.job) {
            lock.unlock();
            if (!submit(due.job)) {
                remove(due.id);
            }
            due.job.reset();  // Perhaps with its function.
            lock.lock();
        }
    }
}

// False if the executor refuses it.
bool ScheduleThread::submit(Schedules::Job const& job) {
    try {
        auto const task = std::make_shared<ScheduledTask>(job);
        return executor->submitTask(task, job->priority, [task](auto const&) { task->end(); }) !=
               nullptr;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return false;
    }
}

}  // namespace ovra::extra
