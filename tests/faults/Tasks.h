#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/log/Log.h>

#include <tests/faults/Sweep.h>

namespace ovra::faults {

using namespace concurrent;

using Work = std::function<Executable::Result()>;
using Callback = std::function<void(std::shared_ptr<Task>)>;

inline Executable::Result succeed() {
    return Executable::SUCCESS;
}

class PlainTask : public Task {
public:
    Result execute() override { return SUCCESS; }
};

inline std::shared_ptr<SubmittedTask> submission(Work const& work = succeed,
                                                 TaskPriority priority = NORMAL) {
    return std::make_shared<SubmittedTask>(work, priority, nullptr, "a task");
}

// What is logged up to this level is formatted and delivered, as long as it lives.
class Logging {
public:
    explicit Logging(log::LogLevel level = log::VERBOSE) { log::setLogLevel(level); }
    Logging(Logging const&) = delete;
    Logging& operator=(Logging const&) = delete;
    ~Logging() { log::setLogLevel(log::ERROR); }
};

inline std::shared_ptr<SubmittedTasksQueue> queueUnder(bool starves) {
    if (starves) {
        return std::make_shared<SubmittedTasksQueue>(
            std::make_shared<HighestPriorityTaskRankingStrategy>());
    }
    return std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>());
}

/// The parts of `taskOperations()`.
std::vector<Operation> submissionOperations();
std::vector<Operation> handleOperations();
std::vector<Operation> queueOperations();
std::vector<Operation> executorOperations();

}  // namespace ovra::faults
