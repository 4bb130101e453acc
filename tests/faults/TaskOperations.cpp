#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>

#include <tests/faults/Tasks.h>

namespace ovra::faults {

namespace {

// A submission with a live handle.
struct Followed {
    explicit Followed(Work const& work = succeed()) : task(submission(work)) {
        handle = std::make_shared<TaskHandle>(SubmittedTask::provideProxy(task));
        task->setHandle(handle);
    }

    std::shared_ptr<SubmittedTask> task;
    std::shared_ptr<TaskHandle> handle;
};

template <typename Use>
std::function<Action()> onTask(Use use, Work const& work = succeed()) {
    return [use, work] {
        auto const logging = std::make_shared<Logging>();
        auto const followed = std::make_shared<Followed>(work);
        return Action([logging, followed, use] { return use(*followed); });
    };
}

}  // namespace

std::vector<Operation> submissionOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    char const* const used = "std::future_error";
    // A sink's lock is not the caller's trouble.
    auto const executing = [](std::vector<int> const& ofSinks, int last) {
        std::vector<Rule> rules;
        for (int ordinal = 1; ordinal <= last; ++ordinal) {
            if (std::find(ofSinks.begin(), ofSinks.end(), ordinal) == ofSinks.end()) {
                rules.push_back(nth(Call::LOCK, ordinal, SYSTEM_ERROR));
            }
        }
        return rules;
    };
    auto const execute = [](Followed& followed) {
        Executable::Result const result = followed.task->execute();
        disarm();
        return shown(std::string("result ") + std::to_string(result) +
                     (followed.handle->getException() ? " with an exception" : ""));
    };
    auto const call = [](Followed& followed) {
        followed.task->performCallback();
        return shown("called");
    };
    auto const calling = [call](Callback const& callback) {
        return [call, callback] {
            auto const logging = std::make_shared<Logging>();
            auto const followed = std::make_shared<Followed>();
            followed->task =
                std::make_shared<SubmittedTask>(std::make_shared<NamedTask>(), NORMAL, callback);
            return Action([logging, followed, call] { return call(*followed); });
        };
    };
    return {
        {"SubmittedTask(task)",
         "1000",
         {memory},
         [] {
             auto const task = std::make_shared<NamedTask>();
             auto const callback = std::make_shared<Callback>(
                 [a = 1L, b = 2L, c = 3L](std::shared_ptr<Task> const&) { return a + b + c; });
             return Action([task, callback] {
                 SubmittedTask const submitted(task, NORMAL, *callback);
                 return shown(static_cast<int>(submitted.getRank()));
             });
         }},
        {"SubmittedTask(null)",
         "Null Task",
         {memory},
         [] {
             auto const logging = std::make_shared<Logging>();
             return Action([logging] {
                 SubmittedTask const submitted(nullptr, NORMAL, nullptr);
                 return shown(submitted.taskName());
             });
         }},
        {"SubmittedTask(function)",
         "a task",
         {memory},
         [] {
             auto const work = std::make_shared<Work>(succeed());
             return Action([work] {
                 SubmittedTask const submitted(*work, NORMAL, nullptr, "a task");
                 return shown(submitted.taskName());
             });
         }},
        {"SubmittedTask::setState, getState", "4", {lock}, onTask([](Followed& followed) {
             followed.task->setState(Executable::CANCELLED);
             return shown(followed.task->getState());
         })},
        {"SubmittedTask::setResult, getResult", "3", {lock}, onTask([](Followed& followed) {
             followed.task->setResult(Executable::FAILURE);
             return shown(followed.task->getResult());
         })},
        {"SubmittedTask::isCancelled", "false", {lock}, onTask([](Followed& followed) {
             return shown(followed.task->isCancelled());
         })},
        {"SubmittedTask::updateTaskState",
         "5",
         {nth(Call::LOCK, 1, SYSTEM_ERROR)},
         onTask([](Followed& followed) {
             followed.task->updateTaskState(Executable::DONE);
             return shown(followed.handle->getState());
         })},
        {"SubmittedTask::setHandle, getHandle", "true", {lock}, onTask([](Followed& followed) {
             followed.task->setHandle(followed.handle);
             return shown(followed.task->getHandle().lock() == followed.handle);
         })},
        {"SubmittedTask::setRank, setPriority", "5000000", {}, onTask([](Followed& followed) {
             followed.task->setPriority(HIGH);
             followed.task->setRank(5000000);
             return shown(static_cast<int>(followed.task->getRank()));
         })},
        {"SubmittedTask::setPriority, when queued",
         "1",
         {lock},
         [] {
             auto const queue = queueUnder(true);
             auto const task = submission();
             queue->addTask(task);
             return Action([queue, task] {
                 task->setPriority(LOW);
                 return shown(static_cast<int>(task->getRank()));
             });
         }},
        {"SubmittedTask::execute", "result 2", executing({2}, 3), onTask(execute), {}, used},
        {"SubmittedTask::execute, an exception",
         "result 3 with an exception",
         executing({2, 3}, 4),
         onTask(execute, []() -> Executable::Result { throw std::runtime_error("it is so"); }),
         {},
         used},
        {"SubmittedTask::execute, a number thrown",
         "result 3 with an exception",
         executing({2, 3}, 4),
         onTask(execute, []() -> Executable::Result { throw 5; }),
         {},
         used},
        {"SubmittedTask::performCallback", "called", {}, calling([](std::shared_ptr<Task> const&) {
         })},
        {"SubmittedTask::performCallback, an exception",
         "called",
         {},
         calling([](std::shared_ptr<Task> const&) { throw std::runtime_error("it is so"); })},
        {"SubmittedTask::performCallback, a number",
         "called",
         {},
         calling([](std::shared_ptr<Task> const&) { throw 5; })},
        {"SubmittedTask::setPromiseValue",
         "set",
         {lock},
         onTask([](Followed& followed) {
             followed.task->setPromiseValue();
             return shown("set");
         }),
         {},
         used},
        {"SubmittedTask::getFuture",
         "true",
         {memory, lock},
         onTask([](Followed& followed) { return shown(followed.task->getFuture().valid()); }),
         {},
         used},
        // What is logged of the mistake, or is not, makes no difference.
        {"SubmittedTask::setPromiseValue, again",
         used,
         {memory},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->setPromiseValue();
             return Action([followed] {
                 followed->task->setPromiseValue();
                 return shown("set");
             });
         }},
        {"SubmittedTask::getFuture, again",
         used,
         {memory},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->getFuture();
             return Action([followed] { return shown(followed->task->getFuture().valid()); });
         }},
        {"SubmittedTask::provideProxy", "true", {memory}, onTask([](Followed& followed) {
             auto const proxy = SubmittedTask::provideProxy(followed.task);
             return shown(proxy != nullptr);
         })},
    };
}

std::vector<Operation> handleOperations() {
    Rule const lock = any(Call::LOCK, SYSTEM_ERROR);
    char const* const used = "std::future_error";
    return {
        {"TaskHandle(proxy)",
         "1",
         {lock},
         [] {
             auto const task = submission();
             auto const proxy = SubmittedTask::provideProxy(task);
             return Action([task, proxy] {
                 TaskHandle const handle(proxy);
                 return shown(handle.getState());
             });
         }},
        {"TaskHandle::cancel", "true", {lock}, onTask([](Followed& followed) {
             followed.handle->cancel();
             return shown(followed.handle->isDone());
         })},
        {"TaskHandle::updatePriority", "1", {}, onTask([](Followed& followed) {
             followed.handle->updatePriority(LOW);
             return shown(static_cast<int>(followed.task->getRank()));
         })},
        {"TaskHandle::waitForCompletion",
         "true",
         {lock},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->execute();
             return Action([followed] {
                 followed->handle->waitForCompletion();
                 return shown(followed->handle->isDone());
             });
         },
         {},
         used},
        {"TaskHandle::waitForCompletion, again",
         used,
         {any(Call::NEW, OUT_OF_MEMORY)},
         [] {
             auto const followed = std::make_shared<Followed>();
             followed->task->execute();
             followed->handle->waitForCompletion();
             return Action([followed] {
                 followed->handle->waitForCompletion();
                 return shown("waited");
             });
         }},
        {"TaskHandle::getException", "true", {}, onTask([](Followed& followed) {
             return shown(followed.handle->getException() == nullptr);
         })},
    };
}

std::vector<Operation> taskOperations() {
    std::vector<Operation> operations;
    for (auto const& some :
         {submissionOperations(), handleOperations(), queueOperations(), executorOperations()}) {
        operations.insert(operations.end(), some.begin(), some.end());
    }
    return operations;
}

}  // namespace ovra::faults
