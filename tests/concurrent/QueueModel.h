// The rule of a queue in its plainest form: a list, newest first, and exact arithmetic.

#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <ostream>
#include <vector>

#include <tests/support/RandomSource.h>

namespace ovra::concurrent::model {

using test::RandomSource;

// --- what both sides are made of

// A call that an application can see: of a strategy of its own, or of an operation that it
// overrides.
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
    LOOKING,          // The rank of another task.
    MEDDLING,         // Changes the rank or the priority of another task whenever it is asked.
    THROWING,         // Ends a pick by an exception, now and then.
    TASK_KINDS
};

enum StrategyKind {
    NO_STRATEGY,
    KEEPING,  // The library's own two.
    DOUBLING,
    DERIVED_KEEPING,  // Each with something added by an application.
    DERIVED_DOUBLING,
    SCRIPTED,  // Does whatever it likes, to any task.
    STRATEGY_KINDS
};

inline char const* nameOf(StrategyKind kind) {
    static char const* const NAMES[] = {"NoStrategy",     "Keeping",         "Doubling",
                                        "DerivedKeeping", "DerivedDoubling", "Scripted"};
    return NAMES[kind];
}

// What a subclass throws out of a pick.
struct Thrown {};

// What a scripted strategy or a subclass can do, on either side.
class Hands {
public:
    Hands() = default;
    Hands(Hands const&) = delete;
    Hands& operator=(Hands const&) = delete;
    virtual ~Hands() = default;
    virtual void setRank(int task, std::uint32_t rank) = 0;
    virtual void setPriority(int task, std::int32_t priority) = 0;
    virtual std::uint32_t askRank(int task) = 0;

    std::vector<int> present;  // All tasks that exist.
    std::vector<int> plain;    // Those without a subclass.
    bool isPicking = false;
};

template <typename Source>
std::uint32_t anyRank(Source& random) {
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

template <typename Source>
std::int32_t anyPriority(Source& random) {
    static constexpr std::int32_t ODD[] = {0, -1, 5, 6, INT32_MAX, INT32_MIN, INT32_MIN + 2};
    return random.oneIn(8) ? ODD[random.below(7)] : random.between(1, 4);
}

// How a subclass answers.
class Answers {
public:
    Answers(TaskKind taskKind, std::uint64_t seed) : kind(taskKind), random(seed) {}

    std::uint32_t rank(std::uint32_t stored, std::int32_t index, Hands& hands) {
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
            case LOOKING:
                return hands.plain.empty() ? stored : hands.askRank(other(hands));
            case MEDDLING:
                meddle(hands);
                return stored;
            case THROWING:
                throwInAPick(hands);
                return stored;
            default:
                return stored;
        }
    }
    std::int32_t priority(std::int32_t stored, Hands& hands) {
        if (kind == MEDDLING) {
            meddle(hands);
        } else if (kind == THROWING) {
            throwInAPick(hands);
        }
        return kind == RANDOM_PRIORITY ? random.between(-1, 6) : stored;
    }

private:
    int other(Hands const& hands) {
        return hands.plain[random.below(static_cast<std::uint32_t>(hands.plain.size()))];
    }
    void throwInAPick(Hands const& hands) {
        if (hands.isPicking && random.oneIn(4)) {
            throw Thrown();
        }
    }
    void meddle(Hands& hands) {
        if (hands.plain.empty() || random.oneIn(3)) {
            return;
        }
        if (random.oneIn(2)) {
            hands.setRank(other(hands), anyRank(random));
        } else {
            hands.setPriority(other(hands), anyPriority(random));
        }
    }

    TaskKind kind;
    RandomSource random;
    std::uint32_t asked = 0;
};

class Script {
public:
    explicit Script(std::uint64_t seed) : random(seed) {}

    void update(int task, Hands& hands) {
        int const other =
            hands.present[random.below(static_cast<std::uint32_t>(hands.present.size()))];
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

    // Also of a negative sum: indices are negative after 2^31 submissions.
    static std::int64_t modulo32(std::int64_t sum) {
        std::int64_t const remainder = sum % 4294967296;
        return remainder < 0 ? remainder + 4294967296 : remainder;
    }

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
        return task.answers.rank(stored, static_cast<std::int32_t>(task.index), *this);
    }
    std::int32_t askPriority(int id) {
        Task& task = tasks.at(id);
        if (!task.overrides) {
            return task.priority;
        }
        events.push_back({Event::PRIORITY_ASKED, id});
        return task.answers.priority(task.priority, *this);
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
                queue.script.update(id, *this);
                break;
        }
    }
    void doubleRank(int id) {
        std::int64_t const rank = askRank(id);
        std::int64_t const doubled = modulo32(rank * 2);
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
            std::int64_t const score = modulo32(rank + tasks.at(id).index);
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
    std::vector<Event> events;
};

}  // namespace ovra::concurrent::model
