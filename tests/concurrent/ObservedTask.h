#pragma once

#include <functional>
#include <string>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <tests/concurrent/Work.h>

namespace ovra::concurrent {

inline std::string movingLine(char const* name, char const* state) {
    return std::string("[SubmittedTask::execute():INFO] Moving current task '") + name + "' into " +
           state + " state.";
}

inline std::string caughtLine(char const* name, char const* what) {
    return std::string("[SubmittedTask::execute():WARNING] Caught exception during running of '") +
           name + "'. (" + what + ")";
}

/// What happened to a task, in order, as a subclass sees it.
class ObservedTask : public SubmittedTask {
public:
    explicit ObservedTask(Work const& work) : SubmittedTask(work, NORMAL, Callback(), "observed") {}

    void setState(Executable::State newState) override {
        events.push_back(std::string("state ") + taskStateToName(newState));
        if (beforeState) {
            beforeState(newState);
        }
        SubmittedTask::setState(newState);
    }
    void setResult(Executable::Result newResult) override {
        events.push_back("result " + std::to_string(newResult));
        if (beforeResult) {
            beforeResult(newResult);
        }
        SubmittedTask::setResult(newResult);
    }

    std::vector<std::string> events;
    std::function<void(Executable::State)> beforeState;
    std::function<void(Executable::Result)> beforeResult;
};

}  // namespace ovra::concurrent
