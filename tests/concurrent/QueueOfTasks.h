// Real tasks, strategies and queues, which report their calls as the model of a queue does.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueModel.h>
#include <tests/concurrent/Work.h>

namespace ovra::concurrent::model {

class Real;

class OddTask : public SubmittedTask {
public:
    OddTask(TaskPriority initialPriority, int ownId, Answers ownAnswers, Real& allTasks)
        : SubmittedTask(succeed(), initialPriority, Callback(), "odd"),
          id(ownId),
          answers(ownAnswers),
          real(&allTasks) {}

    unsigned int getRank() const override;
    TaskPriority getPriority() const override;

private:
    int const id;
    mutable Answers answers;
    Real* const real;
};

class Real : public Hands {
public:
    struct Task {
        SubmittedTask* raw;
        std::shared_ptr<SubmittedTask> owned;  // Empty while the queues alone own it.
        std::weak_ptr<SubmittedTask> watched;
        std::vector<std::shared_ptr<TaskHandle>> handles;
    };

    std::uint32_t askRank(int id) override { return tasks.at(id).raw->getRank(); }
    void setRank(int id, std::uint32_t rank) override { tasks.at(id).raw->setRank(rank); }
    void setPriority(int id, std::int32_t priority) override {
        tasks.at(id).raw->setPriority(static_cast<TaskPriority>(priority));
    }

    std::int32_t make(int id, std::int32_t priority, TaskKind kind, std::uint64_t seed) {
        auto const typed = static_cast<TaskPriority>(priority);
        std::shared_ptr<SubmittedTask> task;
        if (kind == PLAIN) {
            task = submission(succeed(), typed);
        } else {
            task = std::make_shared<OddTask>(typed, id, Answers(kind, seed), *this);
        }
        std::int32_t const index = task->getUniqueIndex();
        ids.emplace(task.get(), id);
        auto* const raw = task.get();
        tasks.emplace(id, Task{raw, task, task, {}});
        return index;
    }
    void forget(int id) {
        ids.erase(tasks.at(id).raw);
        tasks.erase(id);
    }

    std::shared_ptr<SubmittedTasksQueue> makeQueue(StrategyKind kind, std::uint64_t scriptSeed);

    std::map<int, Task> tasks;
    std::map<SubmittedTask*, int> ids;
    std::vector<Event> events;
};

inline unsigned int OddTask::getRank() const {
    real->events.push_back({Event::RANK_ASKED, id});
    return answers.rank(SubmittedTask::getRank(), getUniqueIndex(), *real);
}

inline TaskPriority OddTask::getPriority() const {
    real->events.push_back({Event::PRIORITY_ASKED, id});
    return static_cast<TaskPriority>(answers.priority(SubmittedTask::getPriority(), *real));
}

class DerivedKeeping : public HighestPriorityTaskRankingStrategy {
public:
    explicit DerivedKeeping(Real& allTasks) : real(&allTasks) {}
    void updateRank(SubmittedTask* task) override {
        real->events.push_back({Event::RANK_UPDATED, real->ids.at(task)});
        HighestPriorityTaskRankingStrategy::updateRank(task);
    }

private:
    Real* const real;
};

class DerivedDoubling : public NoStarveTaskRankingStrategy {
public:
    explicit DerivedDoubling(Real& allTasks) : real(&allTasks) {}
    void updateRank(SubmittedTask* task) override {
        real->events.push_back({Event::RANK_UPDATED, real->ids.at(task)});
        NoStarveTaskRankingStrategy::updateRank(task);
    }

private:
    Real* const real;
};

class ScriptedStrategy : public TaskRankingStrategy {
public:
    ScriptedStrategy(Real& allTasks, std::uint64_t seed) : real(&allTasks), script(seed) {}
    void updateRank(SubmittedTask* task) override {
        int const id = real->ids.at(task);
        real->events.push_back({Event::RANK_UPDATED, id});
        script.update(id, *real);
    }

private:
    Real* const real;
    Script script;
};

inline std::shared_ptr<SubmittedTasksQueue> Real::makeQueue(StrategyKind kind,
                                                            std::uint64_t scriptSeed) {
    std::shared_ptr<TaskRankingStrategy> strategy;
    switch (kind) {
        case NO_STRATEGY:
            break;
        case KEEPING:
            strategy = std::make_shared<HighestPriorityTaskRankingStrategy>();
            break;
        case DOUBLING:
            strategy = std::make_shared<NoStarveTaskRankingStrategy>();
            break;
        case DERIVED_KEEPING:
            strategy = std::make_shared<DerivedKeeping>(*this);
            break;
        case DERIVED_DOUBLING:
            strategy = std::make_shared<DerivedDoubling>(*this);
            break;
        default:
            strategy = std::make_shared<ScriptedStrategy>(*this, scriptSeed);
            break;
    }
    return std::make_shared<SubmittedTasksQueue>(std::move(strategy));
}

}  // namespace ovra::concurrent::model
