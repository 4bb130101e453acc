#include <ovra/concurrent/SubmittedTask.h>

#include <cxxabi.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/internal/InitialRank.h>
#include <ovra/concurrent/internal/IsExactly.h>
#include <ovra/concurrent/internal/RankedTasks.h>
#include <ovra/concurrent/internal/SubmissionMemory.h>
#include <ovra/concurrent/internal/UniqueIndex.h>
#include <ovra/concurrent/internal/WeakTask.h>
#include <ovra/log/Log.h>

namespace ovra::concurrent {

std::atomic<std::int32_t> s_uniqueIndexCounter{0x7fffffff};

namespace {

char const EXECUTE_TAG[] = "SubmittedTask::execute()";

static_assert(decltype(s_uniqueIndexCounter)::is_always_lock_free &&
              std::atomic<TaskPriority>::is_always_lock_free &&
              std::atomic<unsigned int>::is_always_lock_free);

std::exception_ptr unknownException() {
    try {
        return std::make_exception_ptr(std::runtime_error("Unknown exception"));
    } catch (std::bad_alloc const&) {
        return std::current_exception();  // A worker has no caller that could catch it.
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
      rank(initialPriority, initialRankOf(initialPriority), --s_uniqueIndexCounter) {
    if (!task) {
        log::log(log::WARNING, "SubmittedTask::SubmittedTask", "Given a null pointer for a task.");
    }
}

SubmittedTask::SubmittedTask(std::function<Executable::Result()> const& work,
                             TaskPriority initialPriority,
                             std::function<void(std::shared_ptr<Task>)> onCompletion,
                             char const* name)
    : callback(std::move(onCompletion)),
      rank(initialPriority, initialRankOf(initialPriority), --s_uniqueIndexCounter) {
    // After the index was taken, which stays used even if this throws.
    // cppcheck-suppress useInitializationList
    task = std::make_shared<LambdaFunctionTask>(work, name);
}

SubmittedTask::SubmittedTask(SubmissionMemory* memory,
                             std::function<Executable::Result()> const& work,
                             TaskPriority initialPriority,
                             std::function<void(std::shared_ptr<Task>)> onCompletion,
                             char const* name)
    : callback(std::move(onCompletion)),
      rank(initialPriority, initialRankOf(initialPriority), --s_uniqueIndexCounter) {
    // cppcheck-suppress useInitializationList
    task = std::allocate_shared<LambdaFunctionTask>(
        SubmissionMemory::Allocator<LambdaFunctionTask>(memory), work, name);
}

SubmittedTask::~SubmittedTask() = default;

unsigned int SubmittedTask::getRank() const {
    unsigned int const stored = rank.rank;
    return (stored & RankedEntry::COMPUTED) == 0 ? stored : rank.home->rankOf(rank);
}

TaskPriority SubmittedTask::getPriority() const {
    return rank.priority;
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
    changeRank(newRank, nullptr);
}

void SubmittedTask::setPriority(TaskPriority newPriority) {
    ++rank.priorityChanges;
    changeRank(initialRankOf(newPriority), &newPriority);
    --rank.priorityChanges;
}

// While a queue computes the rank, the lock that the queue's picks take guards the change. A new
// priority is stored once, however often the rank is tried.
void SubmittedTask::changeRank(unsigned int newRank, TaskPriority const* newPriority) {
    if (!isExactly<SubmittedTask>(*this)) {
        if (newPriority != nullptr) {
            rank.priority = *newPriority;
        }
        rank.rank = clampedRank(newRank, getPriority());
        return;
    }
    for (;;) {
        unsigned int stored = rank.rank;
        if ((stored & RankedEntry::COMPUTED) != 0) {
            if (rank.home->setRank(rank, newRank, newPriority)) {
                return;
            }
            continue;
        }
        if (newPriority != nullptr) {
            rank.priority = *std::exchange(newPriority, nullptr);
        }
        if (rank.rank.compare_exchange_strong(stored, clampedRank(newRank, getPriority()))) {
            return;
        }
    }
}

void SubmittedTask::updateTaskState(Executable::State newState) {
    setState(newState);
    logState(newState);
}

void SubmittedTask::logState(Executable::State newState) const {
    if (log::getLogLevel() < log::INFO && task && isExactly<LambdaFunctionTask>(*task)) {
        return;  // Nobody can notice that the name is not read.
    }
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

void SubmittedTask::setFirstHandle(std::shared_ptr<TaskHandle> const& firstHandle) {
    handle = firstHandle;  // State and result already are those that every task starts with.
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
    return rank.index;
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

// Exempt from the sanitizer's check of references: forced unwinding has no exception object.
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
            throw;  // The thread is being cancelled or exits: do not stop it.
        } catch (std::exception const&) {
            handleAndLogUnknownException(std::current_exception(), true);
            outcome = Executable::FAILURE;
        } catch (...) {
            handleAndLogUnknownException(nullptr, true);
            outcome = Executable::FAILURE;
        }
    }

    if (state != Executable::CANCELLED) {
        finish(outcome);
        logState(Executable::DONE);
    } else {
        setResult(isFinishedResult(outcome) ? outcome : Executable::ABORTED);
    }
    setPromiseValue();
    return result;
}

// `setResult()` and then `setState(DONE)`, under one lock where nothing overrides them.
void SubmittedTask::finish(Executable::Result outcome) {
    if (!isExactly<SubmittedTask>(*this)) {
        setResult(outcome);
        setState(Executable::DONE);
        return;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    result = outcome;
    state = Executable::DONE;
    if (auto const live = handle.lock()) {
        live->setResult(outcome);
        live->setState(Executable::DONE);
    }
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
    end.fulfil();
}

std::future<bool> SubmittedTask::getFuture() {
    return end.future();
}

void SubmittedTask::waitForEnd() {
    end.wait();
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

}  // namespace ovra::concurrent
