// A container of tasks whose ranks are computed, for its tests.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/concurrent/internal/RankedTasks.h>
#include <ovra/concurrent/internal/UniqueIndex.h>
#include <tests/concurrent/Work.h>
#include <tests/support/ThreadCalls.h>

namespace ovra::concurrent {

inline constexpr unsigned int HIGHEST_RANK = 0x7fffffff;
inline constexpr bool DOUBLES = true;
inline constexpr bool KEEPS = false;

// A container whose tasks go by their unique index.
class Ranked {
public:
    explicit Ranked(bool doublesRanks)
        : tasks(make(doublesRanks), [](RankedTasks* made) {
              drop(made->eraseAll());
              made->release();
          }) {}

    void eraseAll() { drop(tasks->eraseAll()); }

    static std::shared_ptr<SubmittedTask> make(std::int32_t index, unsigned int rank) {
        // The next one down is taken.
        s_uniqueIndexCounter = static_cast<std::int32_t>(static_cast<std::uint32_t>(index) + 1);
        auto task = submission(succeed(), LOW);
        task->setRank(rank);
        return task;
    }
    RankedEntry& insert(std::shared_ptr<SubmittedTask> const& task) {
        auto reference = task;
        tasks->insert(reference, ++added);
        return task->rankedEntry();
    }
    RankedEntry& add(std::int32_t index, unsigned int rank) {
        owned.push_back(make(index, rank));
        return insert(owned.back());
    }
    std::optional<std::int32_t> pick(SortKey const& scanned = SortKey()) {
        std::shared_ptr<SubmittedTask> task;
        tasks->pick(scanned, task);
        return task ? std::optional<std::int32_t>(task->getUniqueIndex()) : std::nullopt;
    }
    // A scan that has come to a task which is newer than all here.
    void beginScan() { tasks->scanTo(++added); }
    // A pick whose scan has found the task, with the best score there is.
    std::optional<std::int32_t> take(RankedEntry& entry) {
        SortKey scanned;
        scanned.score = UINT32_MAX;
        scanned.entry = &entry;
        return pick(scanned);
    }
    std::vector<std::int32_t> drain() {
        std::vector<std::int32_t> picked;
        while (auto const index = pick()) {
            picked.push_back(*index);
        }
        return picked;
    }
    bool setRank(RankedEntry& entry, unsigned int rank) {
        return tasks->setRank(entry, rank, nullptr);
    }
    RankedTasks* operator->() const { return tasks.get(); }

    std::vector<std::shared_ptr<SubmittedTask>> owned;

private:
    static RankedTasks* make(bool doublesRanks) {
        NoStarveTaskRankingStrategy const doubling;
        return new RankedTasks(doublesRanks ? &doubling : nullptr);
    }
    // A task that is there keeps itself alive.
    static void drop(RankedEntry* entry) {
        while (entry != nullptr) {
            auto const task = std::move(entry->task);
            entry = entry->next;
        }
    }

    std::shared_ptr<RankedTasks> const tasks;
    std::uint64_t added = 0;
};

// How often memory is asked for in the course of `action`, and whether there is any.
template <typename Action>
int allocationsOf(Action const& action, bool isShort = false) {
    int allocations = 0;
    test::ThreadCalls calls;
    calls.onAllocate = [&](std::size_t) {
        ++allocations;
        return isShort;
    };
    calls.install();
    action();
    return allocations;
}

// Each younger, and of a higher rank, than those before it: a list for each of four.
inline void fillLists(Ranked& ranked) {
    for (int i = 0; i < 4; ++i) {
        ranked.add(1000 - i, 10u << i);
    }
}

}  // namespace ovra::concurrent
