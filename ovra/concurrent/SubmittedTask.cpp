#include <cxxabi.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include <ovra/concurrent/InitialRank.h>
#include <ovra/concurrent/SettledTasks.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/log/Log.h>

namespace ovra::concurrent {

namespace {

char const EXECUTE_TAG[] = "SubmittedTask::execute()";

std::atomic<std::int32_t> s_uniqueIndexCounter{0x7fffffff};

static_assert(decltype(s_uniqueIndexCounter)::is_always_lock_free &&
              std::atomic<TaskPriority>::is_always_lock_free &&
              std::atomic<unsigned int>::is_always_lock_free);

std::exception_ptr unknownException() {
    try {
        return std::make_exception_ptr(std::runtime_error("Unknown exception"));
    } catch (std::bad_alloc const&) {
        return std::current_exception();  // A worker has nobody to throw it at.
    }
}

char const* printable(char const* name) {
    return name != nullptr ? name : "(null)";
}

}  // namespace

SubmittedTask::LambdaFunctionTask::LambdaFunctionTask(std::function<Result()> const& work,
                                                      char const* name)
    : function(work), taskName(name) {}

SubmittedTask::LambdaFunctionTask::~LambdaFunctionTask() = default;

Executable::Result SubmittedTask::LambdaFunctionTask::execute() {
    return function();
}

char const* SubmittedTask::LambdaFunctionTask::name() const {
    return taskName;
}

SubmittedTask::SubmittedTask(std::shared_ptr<Task> work, TaskPriority initialPriority,
                             std::function<void(std::shared_ptr<Task>)> onCompletion)
    : task(std::move(work)),
      callback(std::move(onCompletion)),
      priority(initialPriority),
      rank(submittedTaskPriorityToInitialRank(initialPriority)),
      uniqueIndex(--s_uniqueIndexCounter) {
    if (!task) {
        log::log(log::WARNING, "SubmittedTask::SubmittedTask", "Given a null pointer for a task.");
    }
}

SubmittedTask::SubmittedTask(std::function<Executable::Result()> const& work,
                             TaskPriority initialPriority,
                             std::function<void(std::shared_ptr<Task>)> onCompletion,
                             char const* name)
    : callback(std::move(onCompletion)),
      priority(initialPriority),
      rank(submittedTaskPriorityToInitialRank(initialPriority)),
      uniqueIndex(--s_uniqueIndexCounter) {
    // After the index is taken, which is spent even if this throws.
    // cppcheck-suppress useInitializationList
    task = std::make_shared<LambdaFunctionTask>(work, name);
}

SubmittedTask::~SubmittedTask() = default;

unsigned int SubmittedTask::getRank() const {
    return rank;
}

TaskPriority SubmittedTask::getPriority() const {
    return priority;
}

void SubmittedTask::setState(Executable::State newState) {
    std::lock_guard<std::mutex> const lock(mutex);
    state = newState;
    if (auto const live = handle.lock()) {
        live->setState(newState);
    }
}

void SubmittedTask::setResult(Executable::Result newResult) {
    std::lock_guard<std::mutex> const lock(mutex);
    result = newResult;
    if (auto const live = handle.lock()) {
        live->setResult(newResult);
    }
}

void SubmittedTask::setRank(unsigned int const& newRank) {
    rank = clampedRank(newRank, getPriority());
    if (settled != nullptr) {
        std::lock_guard<std::mutex> const lock(mutex);
        if (SettledTasks* const home = settled) {
            home->noteNewRank(*this);
        }
    }
}

unsigned int SubmittedTask::clampedRank(unsigned int rank, TaskPriority priority) {
    return std::max(std::min(rank, HIGHEST_CURRENT_RANK_VALUE), initialRankOf(priority));
}

void SubmittedTask::setPriority(TaskPriority newPriority) {
    priority = newPriority;
    setRank(submittedTaskPriorityToInitialRank(newPriority));
}

void SubmittedTask::updateTaskState(Executable::State newState) {
    setState(newState);
    log::logVerbatim(log::INFO, EXECUTE_TAG, "Moving current task '%s' into %s state.",
                     printable(taskName()), taskStateToName(newState));
}

void SubmittedTask::setHandle(std::shared_ptr<TaskHandle> const& newHandle) {
    std::lock_guard<std::mutex> const lock(mutex);
    handle = newHandle;
    if (newHandle) {
        newHandle->setState(state);
        newHandle->setResult(result);
    }
}

Executable::State SubmittedTask::getState() const {
    std::lock_guard<std::mutex> const lock(mutex);
    return state;
}

Executable::Result SubmittedTask::getResult() const {
    std::lock_guard<std::mutex> const lock(mutex);
    return result;
}

std::int32_t SubmittedTask::getUniqueIndex() const {
    return uniqueIndex;
}

bool SubmittedTask::isCancelled() const {
    return getState() == Executable::CANCELLED;
}

bool SubmittedTask::isFinishedResult(Executable::Result candidate) const {
    return candidate == Executable::SUCCESS || candidate == Executable::FAILURE;
}

char const* SubmittedTask::taskName() const {
    return task ? task->name() : "Null Task";
}

std::weak_ptr<TaskHandle> SubmittedTask::getHandle() const {
    std::lock_guard<std::mutex> const lock(mutex);
    return handle;
}

// Exempt from the sanitizer's check of references: forced unwinding comes without an object.
__attribute__((no_sanitize("null"))) Executable::Result SubmittedTask::execute() {
    updateTaskState(Executable::EXECUTING);

    Executable::Result outcome = Executable::REPEAT;
    while (outcome == Executable::REPEAT && state != Executable::CANCELLED) {
        if (!task) {
            std::this_thread::yield();
            continue;
        }
        try {
            outcome = task->execute();
        } catch (abi::__forced_unwind&) {
            throw;  // The thread is being cancelled or exits: not ours to stop.
        } catch (std::exception const&) {
            handleAndLogUnknownException(std::current_exception(), true);
            outcome = Executable::FAILURE;
        } catch (...) {
            handleAndLogUnknownException(nullptr, true);
            outcome = Executable::FAILURE;
        }
    }

    if (state != Executable::CANCELLED) {
        setResult(outcome);
        updateTaskState(Executable::DONE);
    } else {
        setResult(isFinishedResult(outcome) ? outcome : Executable::ABORTED);
    }
    setPromiseValue();
    return result;
}

__attribute__((no_sanitize("null"))) void SubmittedTask::performCallback() {
    if (!callback) {
        return;
    }
    try {
        callback(task);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (std::exception const&) {
        handleAndLogUnknownException(std::current_exception(), false);
    } catch (...) {
        log::logVerbatim(log::WARNING, "SubmittedTask::performCallback()",
                         "Caught unknown exception during running of '%s'.", printable(taskName()));
    }
}

void SubmittedTask::setPromiseValue() {
    std::unique_lock<std::mutex> lock(mutex);
    if (fulfilled) {
        lock.unlock();
        log::log(log::ERROR, "SubmittedTask::setPromiseValue()",
                 "A task has come to its end a second time: submit each SubmittedTask once.");
        throw std::future_error(std::future_errc::promise_already_satisfied);
    }
    fulfilled = true;
    if (waiter != nullptr) {
        sem_post(waiter);
    }
    bool const isAwaited = promise != nullptr;
    lock.unlock();
    if (isAwaited) {
        promise->set_value(true);
    }
}

std::future<bool> SubmittedTask::getFuture() {
    std::unique_lock<std::mutex> lock(mutex);
    requireNotRetrieved(lock);
    promise = std::make_unique<std::promise<bool>>();
    retrieved = true;
    if (fulfilled) {
        promise->set_value(true);
    }
    return promise->get_future();
}

// What `getFuture().get()` does, without a future.
void SubmittedTask::awaitEnd() {
    sem_t end;
    {
        std::unique_lock<std::mutex> lock(mutex);
        requireNotRetrieved(lock);
        retrieved = true;
        if (fulfilled) {
            return;
        }
        sem_init(&end, 0, 0);
        waiter = &end;
    }
    try {
        while (sem_wait(&end) != 0) {
        }
    } catch (...) {
        // This thread is being cancelled, and its stack goes.
        std::lock_guard<std::mutex> const lock(mutex);
        waiter = nullptr;
        throw;
    }
}

// Logs once `lock`, on `mutex`, is released.
void SubmittedTask::requireNotRetrieved(std::unique_lock<std::mutex>& lock) const {
    if (retrieved) {
        lock.unlock();
        log::log(log::ERROR, "SubmittedTask::getFuture()",
                 "A task was waited for, or its future was asked for, a second time: wait once.");
        throw std::future_error(std::future_errc::future_already_retrieved);
    }
}

void SubmittedTask::handleAndLogUnknownException(std::exception_ptr e, bool forwardToHandle) {
    if (!e) {
        e = unknownException();
    }
    try {
        std::rethrow_exception(e);
    } catch (std::exception const& caught) {
        log::logVerbatim(log::WARNING, EXECUTE_TAG, "Caught exception during running of '%s'. (%s)",
                         printable(taskName()), printable(caught.what()));
    }
    if (forwardToHandle) {
        if (auto const live = handle.lock()) {
            live->setException(e);
        }
    }
}

std::shared_ptr<SubmittedTaskProxy> SubmittedTask::provideProxy(
    std::weak_ptr<SubmittedTask> const& task) {
    auto proxy = std::make_shared<SubmittedTaskProxy>();
    proxy->getState = [task] { return stateOf(task); };
    proxy->getResult = [task] { return resultOf(task); };
    proxy->updatePriority = [task](TaskPriority newPriority) { updatePriority(task, newPriority); };
    proxy->cancel = [task] { cancel(task); };
    proxy->waitForCompletion = [task] { waitForCompletion(task); };
    return proxy;
}

Executable::State SubmittedTask::stateOf(std::weak_ptr<SubmittedTask> const& task) {
    auto const live = task.lock();
    return live ? live->getState() : Executable::DONE;
}

Executable::Result SubmittedTask::resultOf(std::weak_ptr<SubmittedTask> const& task) {
    auto const live = task.lock();
    return live ? live->getResult() : Executable::SUCCESS;
}

void SubmittedTask::updatePriority(std::weak_ptr<SubmittedTask> const& task,
                                   TaskPriority newPriority) {
    if (auto const live = task.lock()) {
        live->setPriority(newPriority);
    }
}

void SubmittedTask::cancel(std::weak_ptr<SubmittedTask> const& task) {
    if (auto const live = task.lock()) {
        live->setState(Executable::CANCELLED);
    }
}

void SubmittedTask::waitForCompletion(std::weak_ptr<SubmittedTask> const& task) {
    if (auto const live = task.lock()) {
        live->awaitEnd();
    } else {
        // The worker has let go of the task: see all it did before.
        std::atomic_thread_fence(std::memory_order_acquire);
    }
}

}  // namespace ovra::concurrent
