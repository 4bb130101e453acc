#pragma once

#include <memory>
#include <vector>

#include <ovra/log/Log.h>

#include <tests/concurrent/Work.h>
#include <tests/faults/Sweep.h>

namespace ovra::faults {

using namespace concurrent;

// What is logged up to this level is formatted and delivered, as long as it lives.
class Logging {
public:
    explicit Logging(log::LogLevel level = log::VERBOSE) { log::setLogLevel(level); }
    Logging(Logging const&) = delete;
    Logging& operator=(Logging const&) = delete;
    ~Logging() { log::setLogLevel(log::ERROR); }
};

inline std::shared_ptr<SubmittedTasksQueue> queueUnder(bool starves) {
    return starves ? makeQueue<HighestPriorityTaskRankingStrategy>()
                   : makeQueue<NoStarveTaskRankingStrategy>();
}

/// The parts of `taskOperations()`.
std::vector<Operation> submissionOperations();
std::vector<Operation> handleOperations();
std::vector<Operation> queueOperations();
std::vector<Operation> executorOperations();

}  // namespace ovra::faults
