// Drives queues of tasks, and models of them, through one sequence of operations.

#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/QueueModel.h>
#include <tests/concurrent/QueueOfTasks.h>

namespace ovra::concurrent::model {

struct Profile {
    char const* name;
    std::vector<StrategyKind> strategies;  // One queue each; tasks may be in several.
    std::uint32_t oneOddTaskIn;            // 0: none.
    std::uint32_t usualSize;               // About how many tasks a queue holds.
    bool readsSeldom;                      // Ranks are compared now and then only.

    // Whether no override or strategy of an application runs, whose own memory could be short.
    bool isPlain() const {
        return oneOddTaskIn == 0 &&
               std::all_of(strategies.begin(), strategies.end(), [](StrategyKind kind) {
                   return kind == NO_STRATEGY || kind == KEEPING || kind == DOUBLING;
               });
    }
};

// Lets all allocations of `operator new` fail from the nth on; none for 0.
using FailAllocations = std::function<void(int nth)>;

inline void PrintTo(Profile const& profile, std::ostream* out) {
    *out << profile.name;
}

// Random operations on queues and on their models, with what both come to compared. `Source` says
// which: numbers like those of a RandomSource.
template <typename Source>
class Trace {
public:
    // Without `fail`, memory is never short.
    Trace(Profile const& traceProfile, Source& choices, FailAllocations fail = {})
        : profile(traceProfile), random(choices), failAllocations(std::move(fail)) {
        for (StrategyKind const kind : profile.strategies) {
            addQueue(kind);
        }
    }
    Trace(Trace const&) = delete;
    Trace& operator=(Trace const&) = delete;

    // One operation. Not to be called again after a difference.
    void advance() {
        // Phases in which the queues grow, and in which they shrink again.
        if (random.oneIn(profile.usualSize * 2)) {
            growing = !growing;
        }
        step();
        if (!profile.readsSeldom || random.oneIn(40)) {
            compare();
        }
        ++done;
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

private:
    struct QueuePair {
        Model::Queue model;
        std::shared_ptr<SubmittedTasksQueue> real;
    };

    // Now and then, and where only the library allocates: memory that ends with the nth block.
    class ShortMemory {
    public:
        ShortMemory(Trace& trace, int nth)
            : fail(trace.failAllocations && trace.profile.isPlain() && trace.random.oneIn(4)
                       ? &trace.failAllocations
                       : nullptr) {
            if (fail != nullptr) {
                (*fail)(nth);
            }
        }
        ShortMemory(ShortMemory const&) = delete;
        ShortMemory& operator=(ShortMemory const&) = delete;
        ~ShortMemory() {
            if (fail != nullptr) {
                (*fail)(0);
            }
        }

    private:
        FailAllocations const* const fail;
    };

    void shareLists() {
        real.present = model.present;
        real.plain = model.plain;
    }
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

    void step() {
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
        } else if (dice < 98 && random.oneIn(profile.usualSize)) {
            changeAll();
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
            // Smaller, modulo 2^32.
            EXPECT_LT(static_cast<std::uint32_t>(lastIndex) - static_cast<std::uint32_t>(index) - 1,
                      0x7fffffffu);
        }
        lastIndex = index;
        model.make(id, index, priority, kind, seed);
        model.present.push_back(id);
        if (kind == PLAIN) {
            model.plain.push_back(id);
        }
        shareLists();
        return id;
    }

    void add(QueuePair& queue, int id) {
        auto& task = real.tasks.at(id);
        auto owned = task.owned ? task.owned : task.watched.lock();
        std::shared_ptr<TaskHandle> handle;
        try {
            ShortMemory const memory(*this, random.between(1, 3));
            handle = queue.real->addTask(std::move(owned));
        } catch (std::bad_alloc const&) {
            ASSERT_TRUE(failAllocations) << where();
            return;
        }
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
        std::shared_ptr<SubmittedTask> picked;
        int const found = resultOfPick(real, [&] {
            ShortMemory const memory(*this, 1);
            picked = queue.real->getNextTask();
            return picked ? real.ids.at(picked.get()) : -1;
        });
        ASSERT_EQ(found, resultOfPick(model, [&] { return model.pick(queue.model); }))
            << where() << " picking from the queue " << nameOf(queue.model.strategy);
        if (picked) {
            real.tasks.at(found).owned = std::move(picked);
        }
    }

    // -2: an exception ended the pick.
    template <typename Pick>
    static int resultOfPick(Hands& hands, Pick pick) {
        hands.isPicking = true;
        int result = -2;
        try {
            result = pick();
        } catch (Thrown const&) {
        }
        hands.isPicking = false;
        return result;
    }

    void changePriority(int id) { changePriority(id, anyPriority(random)); }

    void changePriority(int id, std::int32_t priority) {
        auto const& task = real.tasks.at(id);
        ShortMemory const memory(*this, 1);
        if (!task.handles.empty() && random.oneIn(2)) {
            auto const& handle =
                task.handles[random.below(static_cast<std::uint32_t>(task.handles.size()))];
            handle->updatePriority(static_cast<TaskPriority>(priority));
        } else {
            real.setPriority(id, priority);
        }
        model.setPriority(id, priority);
    }

    void changeRank(int id) { changeRank(id, anyRank(random)); }

    void changeRank(int id, std::uint32_t rank) {
        {
            ShortMemory const memory(*this, 1);
            real.setRank(id, rank);
        }
        model.setRank(id, rank);
    }

    // Oldest first, newest first, or in no order.
    void changeAll() {
        std::vector<int> order = model.present;
        std::uint32_t const kind = random.below(3);
        if (kind == 1) {
            std::reverse(order.begin(), order.end());
        }
        for (std::size_t i = order.size(); kind == 2 && i > 1; --i) {
            std::swap(order[i - 1], order[random.below(static_cast<std::uint32_t>(i))]);
        }
        bool const toOne = random.oneIn(2);
        std::int32_t const priority = anyPriority(random);
        std::uint32_t const rank = anyRank(random);
        bool const setsRanks = random.oneIn(3);
        std::uint32_t const share = 1 + random.below(3);
        for (int const id : order) {
            if (!random.oneIn(share)) {
                continue;
            }
            if (setsRanks) {
                changeRank(id, toOne ? rank : anyRank(random));
            } else {
                changePriority(id, toOne ? priority : anyPriority(random));
            }
        }
    }

    // Two tasks with equal scores, or with neighbouring ones.
    void bringScoresTogether() {
        int const first = anyTask();
        int const second = anyTask();
        std::int64_t const rank =
            Model::modulo32(model.tasks.at(first).rank + model.tasks.at(first).index -
                            model.tasks.at(second).index + random.between(-1, 1));
        if (rank <= 0x7fffffff) {
            changeRank(second, static_cast<std::uint32_t>(rank));
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
        model.plain.erase(std::remove_if(model.plain.begin(), model.plain.end(),
                                         [&](int id) { return model.tasks.count(id) == 0; }),
                          model.plain.end());
        shareLists();
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
        return "trace " + std::string(profile.name) + ", operation " + std::to_string(done);
    }
    static std::string listed(std::vector<Event> const& events) {
        return ::testing::PrintToString(events);
    }

    Profile const profile;
    Source& random;
    FailAllocations const failAllocations;
    bool growing = true;
    int done = 0;
    int nextId = 0;
    std::int32_t lastIndex = 0;
    Model model;
    Real real;
    std::vector<QueuePair> queues;
};

}  // namespace ovra::concurrent::model
