// A queue against a model of it, on long random traces.
//
// The model below is the rule in its plainest form: a list, newest first, and exact arithmetic. The
// queue must agree with it on every pick, on the rank of every task after every operation, and on
// every call of a strategy or an overridden operation, in order.
//
//   OVRA_TEST_SEED              another trace: a number, or "random"
//   OVRA_TEST_MODEL_OPERATIONS  operations in all, over every kind of trace

#include <algorithm>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/Work.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::concurrent {
namespace {

using test::RandomSource;

// --- what both sides are made of

// A call that a host can see: of a strategy of its own, or of an operation that it overrides.
struct Event {
    enum Kind { RANK_ASKED, PRIORITY_ASKED, RANK_UPDATED } kind;
    int task;

    friend bool operator==(Event const& left, Event const& right) {
        return left.kind == right.kind && left.task == right.task;
    }
    friend std::ostream& operator<<(std::ostream& out, Event const& event) {
        static char const* const NAMES[] = {"rank asked of ", "priority asked of ", "update of "};
        return out << NAMES[event.kind] << event.task;
    }
};

enum TaskKind {
    PLAIN,            // No subclass.
    HONEST,           // A subclass that answers what it has.
    RANDOM_RANK,      // Any rank, another one each time.
    NEAR_ZERO_SCORE,  // A rank that brings the score to where it wraps.
    HUGE_RANK,        // Above the cap.
    COUNTING,         // Its rank, and one more at each question.
    RANDOM_PRIORITY,  // Any priority, another one each time.
    TASK_KINDS
};

// How a subclass answers.
class Answers {
public:
    Answers(TaskKind taskKind, std::uint64_t seed) : kind(taskKind), random(seed) {}

    std::uint32_t rank(std::uint32_t stored, std::int32_t index) {
        ++asked;
        switch (kind) {
            case RANDOM_RANK:
                return random.word() >> random.below(32);
            case NEAR_ZERO_SCORE:
                return static_cast<std::uint32_t>(random.between(-3, 3)) -
                       static_cast<std::uint32_t>(index);
            case HUGE_RANK:
                return 0x80000000u + (random.word() >> random.between(1, 31));
            case COUNTING:
                return stored + asked;
            default:
                return stored;
        }
    }
    std::int32_t priority(std::int32_t stored) {
        return kind == RANDOM_PRIORITY ? random.between(-1, 6) : stored;
    }

private:
    TaskKind kind;
    RandomSource random;
    std::uint32_t asked = 0;
};

enum StrategyKind {
    NO_STRATEGY,
    KEEPING,  // The library's own two.
    DOUBLING,
    DERIVED_KEEPING,  // Each with something added by a host.
    DERIVED_DOUBLING,
    SCRIPTED,  // Does whatever it likes, to any task.
    STRATEGY_KINDS
};

char const* nameOf(StrategyKind kind) {
    static char const* const NAMES[] = {"NoStrategy",     "Keeping",         "Doubling",
                                        "DerivedKeeping", "DerivedDoubling", "Scripted"};
    return NAMES[kind];
}

// What a scripted strategy can do, on either side.
class Hands {
public:
    Hands() = default;
    Hands(Hands const&) = delete;
    Hands& operator=(Hands const&) = delete;
    virtual ~Hands() = default;
    virtual void setRank(int task, std::uint32_t rank) = 0;
    virtual void setPriority(int task, std::int32_t priority) = 0;
    virtual std::uint32_t askRank(int task) = 0;
};

std::uint32_t anyRank(RandomSource& random) {
    switch (random.below(5)) {
        case 0:
            return random.below(20);
        case 1:
            return 0x7fffffffu - random.below(3);
        case 2:
            return 0x7fffffffu + random.below(3);
        case 3:
            return random.word();
        default:
            return random.word() >> random.below(32);
    }
}

std::int32_t anyPriority(RandomSource& random) {
    static constexpr std::int32_t ODD[] = {0, -1, 5, 6, INT32_MAX, INT32_MIN, INT32_MIN + 2};
    return random.oneIn(8) ? ODD[random.below(7)] : random.between(1, 4);
}

class Script {
public:
    explicit Script(std::uint64_t seed) : random(seed) {}

    void update(int task, std::vector<int> const& present, Hands& hands) {
        int const other = present[random.below(static_cast<std::uint32_t>(present.size()))];
        switch (random.below(8)) {
            case 0:
                hands.setRank(task, anyRank(random));
                break;
            case 1:
                hands.setRank(other, anyRank(random));
                break;
            case 2:
                hands.setPriority(other, anyPriority(random));
                break;
            case 3:
                hands.setRank(task, hands.askRank(other));
                break;
            case 4:
                hands.setRank(task, hands.askRank(task) + 1);
                break;
            default:
                break;
        }
    }

private:
    RandomSource random;
};

// --- the model

class Model : public Hands {
public:
    struct Task {
        std::int64_t index;
        std::int64_t rank;
        std::int32_t priority;
        bool overrides;
        Answers answers;
    };
    struct Queue {
        StrategyKind strategy;
        Script script;
        bool closed;
        std::list<int> tasks;  // Newest first.
    };

    static std::int64_t initialRank(std::int32_t priority) {
        switch (priority) {
            case 2:
                return 1000;
            case 3:
                return 1000000;
            case 4:
                return 2147483647;
            default:
                return 1;
        }
    }

    void make(int task, std::int32_t index, std::int32_t priority, TaskKind kind,
              std::uint64_t seed) {
        tasks.emplace(
            task, Task{index, initialRank(priority), priority, kind != PLAIN, Answers(kind, seed)});
    }
    void forget(int task) { tasks.erase(task); }

    std::uint32_t askRank(int id) override {
        Task& task = tasks.at(id);
        auto const stored = static_cast<std::uint32_t>(task.rank);
        if (!task.overrides) {
            return stored;
        }
        events.push_back({Event::RANK_ASKED, id});
        return task.answers.rank(stored, static_cast<std::int32_t>(task.index));
    }
    std::int32_t askPriority(int id) {
        Task& task = tasks.at(id);
        if (!task.overrides) {
            return task.priority;
        }
        events.push_back({Event::PRIORITY_ASKED, id});
        return task.answers.priority(task.priority);
    }
    void setRank(int id, std::uint32_t newRank) override {
        std::int64_t rank = newRank;
        if (rank > 2147483647) {
            rank = 2147483647;
        }
        std::int64_t const floor = initialRank(askPriority(id));
        if (rank < floor) {
            rank = floor;
        }
        tasks.at(id).rank = rank;
    }
    void setPriority(int id, std::int32_t priority) override {
        tasks.at(id).priority = priority;
        setRank(id, static_cast<std::uint32_t>(initialRank(priority)));
    }

    void updateRank(Queue& queue, int id) {
        switch (queue.strategy) {
            case NO_STRATEGY:
            case KEEPING:
                break;
            case DERIVED_KEEPING:
                events.push_back({Event::RANK_UPDATED, id});
                break;
            case DOUBLING:
                doubleRank(id);
                break;
            case DERIVED_DOUBLING:
                events.push_back({Event::RANK_UPDATED, id});
                doubleRank(id);
                break;
            default:
                events.push_back({Event::RANK_UPDATED, id});
                queue.script.update(id, present, *this);
                break;
        }
    }
    void doubleRank(int id) {
        std::int64_t const rank = askRank(id);
        std::int64_t const doubled = (rank * 2) % 4294967296;
        setRank(id, static_cast<std::uint32_t>(rank > doubled ? rank : doubled));
    }

    bool add(Queue& queue, int id) {
        if (queue.closed) {
            return false;
        }
        queue.tasks.push_front(id);
        return true;
    }
    // -1 if none.
    int pick(Queue& queue) {
        if (queue.closed) {
            return -1;
        }
        int best = -1;
        std::int64_t bestScore = 0;
        for (int const id : queue.tasks) {
            std::int64_t const rank = askRank(id);
            std::int64_t const score = (rank + tasks.at(id).index) % 4294967296;
            if (score > bestScore) {
                best = id;
                bestScore = score;
            }
            updateRank(queue, id);
        }
        queue.tasks.remove(best);
        return best;
    }
    void close(Queue& queue) {
        queue.closed = true;
        queue.tasks.clear();
    }

    std::map<int, Task> tasks;
    std::vector<int> present;  // All that exist, for scripts to choose from.
    std::vector<Event> events;
};

// --- the real thing

class OddTask : public SubmittedTask {
public:
    OddTask(TaskPriority initialPriority, int ownId, Answers ownAnswers,
            std::vector<Event>& allEvents)
        : SubmittedTask(succeed(), initialPriority, Callback(), "odd"),
          id(ownId),
          answers(ownAnswers),
          events(&allEvents) {}

    unsigned int getRank() const override {
        events->push_back({Event::RANK_ASKED, id});
        return answers.rank(SubmittedTask::getRank(), getUniqueIndex());
    }
    TaskPriority getPriority() const override {
        events->push_back({Event::PRIORITY_ASKED, id});
        return static_cast<TaskPriority>(answers.priority(SubmittedTask::getPriority()));
    }

private:
    int const id;
    mutable Answers answers;
    std::vector<Event>* const events;
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
            task = std::make_shared<OddTask>(typed, id, Answers(kind, seed), events);
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
    std::vector<int> present;
    std::vector<Event> events;
};

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
        script.update(id, real->present, *real);
    }

private:
    Real* const real;
    Script script;
};

std::shared_ptr<SubmittedTasksQueue> Real::makeQueue(StrategyKind kind, std::uint64_t scriptSeed) {
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

// --- a trace

struct Profile {
    char const* name;
    std::vector<StrategyKind> strategies;  // One queue each; tasks may be in several.
    std::uint32_t oneOddTaskIn;            // 0: none.
    std::uint32_t usualSize;               // About how many tasks a queue holds.
    bool readsSeldom;                      // Ranks are compared now and then only.
};

class Trace {
public:
    Trace(Profile const& traceProfile, std::uint64_t seed) : profile(traceProfile), random(seed) {
        for (StrategyKind const kind : profile.strategies) {
            addQueue(kind);
        }
    }
    Trace(Trace const&) = delete;
    Trace& operator=(Trace const&) = delete;

    // Stops at the first difference.
    void run(int operations) {
        // Phases in which the queues grow, and in which they shrink again.
        bool growing = true;
        for (done = 0; done < operations && !::testing::Test::HasFailure(); ++done) {
            if (random.oneIn(profile.usualSize * 2)) {
                growing = !growing;
            }
            step(growing);
            if (!profile.readsSeldom || random.oneIn(40)) {
                compare();
            }
        }
        if (!::testing::Test::HasFailure()) {
            drain();
        }
    }

private:
    struct QueuePair {
        Model::Queue model;
        std::shared_ptr<SubmittedTasksQueue> real;
    };

    void addQueue(StrategyKind kind) {
        std::uint64_t const seed = random.next();
        queues.push_back({Model::Queue{kind, Script(seed), false, {}}, real.makeQueue(kind, seed)});
    }
    QueuePair& anyQueue() {
        return queues[random.below(static_cast<std::uint32_t>(queues.size()))];
    }
    int anyTask() {
        return model.present[random.below(static_cast<std::uint32_t>(model.present.size()))];
    }
    // How often each task is queued.
    std::map<int, int> places() const {
        std::map<int, int> result;
        for (auto const& queue : queues) {
            for (int const id : queue.model.tasks) {
                ++result[id];
            }
        }
        return result;
    }

    void step(bool growing) {
        std::uint32_t const dice = random.below(100);
        if (model.present.empty() || dice < (growing ? 45u : 15u)) {
            add(anyQueue(), make());
        } else if (dice < (growing ? 60u : 65u)) {
            pick(anyQueue());
        } else if (dice < 70) {
            changePriority(anyTask());
        } else if (dice < 76) {
            changeRank(anyTask());
        } else if (dice < 84) {
            bringScoresTogether();
        } else if (dice < 86) {
            updateFromOutside(anyTask());
        } else if (dice < 88) {
            add(anyQueue(), anyTask());  // Perhaps it is in one already.
        } else if (dice < 90) {
            cancel(anyTask());
        } else if (dice < 93) {
            leaveToTheQueues(anyTask());
        } else if (dice < 96) {
            forgetWhatNoQueueHolds();
        } else if (dice < 97) {
            for (std::uint32_t gap = random.below(50); gap > 0; --gap) {
                submission();
            }
        } else if (dice < 98 && random.oneIn(profile.usualSize)) {
            replace(anyQueue());
        } else {
            ask(anyQueue());
        }
        if (model.present.size() > profile.usualSize * 4) {
            forgetWhatNoQueueHolds();
        }
    }

    int make() {
        int const id = nextId++;
        std::int32_t const priority = anyPriority(random);
        bool const odd = profile.oneOddTaskIn != 0 && random.oneIn(profile.oneOddTaskIn);
        auto const kind =
            odd ? static_cast<TaskKind>(random.between(HONEST, TASK_KINDS - 1)) : PLAIN;
        std::uint64_t const seed = random.next();
        std::int32_t const index = real.make(id, priority, kind, seed);
        if (lastIndex != 0) {
            EXPECT_LT(index, lastIndex);
        }
        lastIndex = index;
        model.make(id, index, priority, kind, seed);
        model.present.push_back(id);
        real.present = model.present;
        return id;
    }

    void add(QueuePair& queue, int id) {
        auto& task = real.tasks.at(id);
        auto owned = task.owned ? task.owned : task.watched.lock();
        auto handle = queue.real->addTask(std::move(owned));
        bool const taken = model.add(queue.model, id);
        ASSERT_EQ(handle != nullptr, taken) << where() << " adding " << id;
        if (handle) {
            ASSERT_EQ(task.raw->getHandle().lock(), handle) << where();
            task.handles.push_back(std::move(handle));
            if (task.handles.size() > 3) {
                task.handles.erase(task.handles.begin());
            }
        }
    }

    void pick(QueuePair& queue) {
        std::shared_ptr<SubmittedTask> picked = queue.real->getNextTask();
        int const expected = model.pick(queue.model);
        int const found = picked ? real.ids.at(picked.get()) : -1;
        ASSERT_EQ(found, expected)
            << where() << " picking from the queue " << nameOf(queue.model.strategy);
        if (picked) {
            real.tasks.at(found).owned = std::move(picked);
        }
    }

    void changePriority(int id) {
        std::int32_t const priority = anyPriority(random);
        auto const& task = real.tasks.at(id);
        if (!task.handles.empty() && random.oneIn(2)) {
            auto const& handle =
                task.handles[random.below(static_cast<std::uint32_t>(task.handles.size()))];
            handle->updatePriority(static_cast<TaskPriority>(priority));
        } else {
            real.setPriority(id, priority);
        }
        model.setPriority(id, priority);
    }

    void changeRank(int id) {
        std::uint32_t const rank = anyRank(random);
        real.setRank(id, rank);
        model.setRank(id, rank);
    }

    // Two tasks with equal scores, or with neighbouring ones.
    void bringScoresTogether() {
        int const first = anyTask();
        int const second = anyTask();
        std::int64_t const rank = model.tasks.at(first).rank + model.tasks.at(first).index -
                                  model.tasks.at(second).index + random.between(-1, 1);
        if (rank >= 0 && rank <= 0x7fffffff) {
            real.setRank(second, static_cast<std::uint32_t>(rank));
            model.setRank(second, static_cast<std::uint32_t>(rank));
        }
    }

    void updateFromOutside(int id) {
        NoStarveTaskRankingStrategy().updateRank(real.tasks.at(id).raw);
        model.doubleRank(id);
    }

    void cancel(int id) {
        auto const& task = real.tasks.at(id);
        if (!task.handles.empty()) {
            task.handles.back()->cancel();
        } else {
            task.raw->setState(Executable::CANCELLED);
        }
        ASSERT_TRUE(task.raw->isCancelled()) << where();
    }

    void leaveToTheQueues(int id) {
        if (places().count(id) != 0) {
            real.tasks.at(id).owned.reset();
            ASSERT_FALSE(real.tasks.at(id).watched.expired()) << where() << " lost " << id;
        }
    }

    void forgetWhatNoQueueHolds() {
        auto const queued = places();
        auto const isForgotten = [&](int id) {
            if (queued.count(id) != 0) {
                return false;
            }
            auto const watched = real.tasks.at(id).watched;
            model.forget(id);
            real.forget(id);
            EXPECT_TRUE(watched.expired()) << where() << " still holding " << id;
            return true;
        };
        model.present.erase(std::remove_if(model.present.begin(), model.present.end(), isForgotten),
                            model.present.end());
        real.present = model.present;
    }

    void replace(QueuePair& queue) {
        std::vector<int> const dropped(queue.model.tasks.begin(), queue.model.tasks.end());
        for (int const id : dropped) {
            real.tasks.at(id).owned = real.tasks.at(id).watched.lock();
        }
        queue.real->close();
        model.close(queue.model);
        compare();
        if (!model.present.empty()) {
            add(queue, anyTask());
        }
        pick(queue);
        StrategyKind const kind = queue.model.strategy;
        std::uint64_t const seed = random.next();
        queue.model = Model::Queue{kind, Script(seed), false, {}};
        queue.real = real.makeQueue(kind, seed);
    }

    void ask(QueuePair& queue) {
        ASSERT_EQ(queue.real->isEmpty(), queue.model.tasks.empty()) << where();
        ASSERT_EQ(queue.real->isClosed(), queue.model.closed) << where();
    }

    // Empties the queues, as far as their scores let them.
    void drain() {
        for (auto& queue : queues) {
            std::size_t attempts = queue.model.tasks.size() + 20;
            while (!queue.model.tasks.empty() && attempts-- > 0 && !::testing::Test::HasFailure()) {
                pick(queue);
                if (!profile.readsSeldom || random.oneIn(40)) {
                    compare();
                }
            }
        }
        compare();
    }

    void compare() {
        auto queued = places();
        for (auto const& entry : real.tasks) {
            SubmittedTask const& task = *entry.second.raw;
            Model::Task const& expected = model.tasks.at(entry.first);
            ASSERT_EQ(task.SubmittedTask::getRank(), expected.rank)
                << where() << ": rank of " << entry.first;
            ASSERT_EQ(task.SubmittedTask::getPriority(), expected.priority)
                << where() << ": priority of " << entry.first;
            int const references = queued[entry.first] + (entry.second.owned ? 1 : 0);
            ASSERT_EQ(entry.second.watched.use_count(), references)
                << where() << ": references to " << entry.first;
        }
        for (auto& queue : queues) {
            ask(queue);
        }
        ASSERT_TRUE(real.events == model.events)
            << where() << ": calls differ\n  real:  " << listed(real.events)
            << "\n  model: " << listed(model.events);
        real.events.clear();
        model.events.clear();
    }

    std::string where() const {
        return "trace " + std::string(profile.name) + ", operation " + std::to_string(done) + "; " +
               test::seedNote();
    }
    static std::string listed(std::vector<Event> const& events) {
        return ::testing::PrintToString(events);
    }

    Profile const profile;
    RandomSource random;
    int done = 0;
    int nextId = 0;
    std::int32_t lastIndex = 0;
    Model model;
    Real real;
    std::vector<QueuePair> queues;
};

void PrintTo(Profile const& profile, std::ostream* out) {
    *out << profile.name;
}

std::vector<Profile> profiles() {
    std::vector<Profile> all = {
        {"Keeping", {KEEPING}, 0, 8, false},
        {"KeepingSeldomRead", {KEEPING}, 0, 40, true},
        {"KeepingLarge", {KEEPING}, 0, 2000, true},
        {"KeepingOdd", {KEEPING}, 3, 12, false},
        {"Doubling", {DOUBLING}, 0, 8, false},
        {"DoublingMedium", {DOUBLING}, 0, 60, false},
        {"DoublingSeldomRead", {DOUBLING}, 0, 40, true},
        {"DoublingLarge", {DOUBLING}, 0, 2000, true},
        {"DoublingOdd", {DOUBLING}, 3, 12, false},
        {"DoublingFewOdd", {DOUBLING}, 40, 60, true},
        {"NoStrategy", {NO_STRATEGY}, 4, 12, false},
        {"DerivedKeeping", {DERIVED_KEEPING}, 4, 12, false},
        {"DerivedDoubling", {DERIVED_DOUBLING}, 4, 12, false},
        {"Scripted", {SCRIPTED}, 4, 12, false},
        {"ScriptedPlain", {SCRIPTED}, 0, 30, false},
        {"Shared", {KEEPING, DOUBLING}, 0, 12, false},
        {"SharedSeldomRead", {DOUBLING, DOUBLING, KEEPING}, 10, 20, true},
        {"SharedByAll",
         {KEEPING, DOUBLING, NO_STRATEGY, DERIVED_KEEPING, DERIVED_DOUBLING, SCRIPTED},
         5,
         30,
         false},
        {"SharedByAllLarge", {KEEPING, DOUBLING, SCRIPTED, DOUBLING}, 50, 600, true},
    };
    return all;
}

class QueueModelTest : public test::BoundedTest, public ::testing::WithParamInterface<Profile> {};

TEST_P(QueueModelTest, AgreesOnEveryPickEveryRankAndEveryCall) {
    auto const all = profiles();
    auto const operations = static_cast<int>(
        test::environmentNumber("OVRA_TEST_MODEL_OPERATIONS", test::scaled(150000)));
    int const share = std::max(operations / static_cast<int>(all.size()), 100);

    // Several short traces differ more than one long one.
    std::uint64_t seed = test::runSeed();
    for (char const* letter = GetParam().name; *letter != '\0'; ++letter) {
        seed = seed * 31 + static_cast<unsigned char>(*letter);
    }
    RandomSource seeds(seed);
    int const traces = GetParam().usualSize >= 500 ? 1 : 10;
    for (int i = 0; i < traces && !HasFailure(); ++i) {
        Trace(GetParam(), seeds.next()).run(share / traces);
    }
}

std::string nameOfProfile(::testing::TestParamInfo<Profile> const& parameter) {
    return parameter.param.name;
}

INSTANTIATE_TEST_SUITE_P(Traces, QueueModelTest, ::testing::ValuesIn(profiles()), nameOfProfile);

}  // namespace
}  // namespace ovra::concurrent
