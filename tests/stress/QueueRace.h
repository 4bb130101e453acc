// A race for the tasks of some queues: threads add, pick, re-rank, cancel and close at once.

#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <tests/concurrent/Work.h>
#include <tests/support/RandomSource.h>

namespace ovra::concurrent::stress {

// A subclass that answers what it has: queues compare it by the plain rule.
class HonestTask : public SubmittedTask {
public:
    using SubmittedTask::SubmittedTask;
    unsigned int getRank() const override { return SubmittedTask::getRank(); }
    TaskPriority getPriority() const override { return SubmittedTask::getPriority(); }
};

// One race between two or three queues. What must hold while it lasts:
//   - a rank is from 1 to the highest;
//   - the rank of a task that was added once is the rank that its only changer gave it, or that
//     rank doubled some times if its queue doubles ranks.
// And when all threads have ended:
//   - each queue that is open hands out each of its tasks, at most as often as it was added;
//   - each pick takes a task with the largest score and doubles each rank, or none, exactly.
class QueueRace {
public:
    explicit QueueRace(std::uint64_t seed) : random(seed) {
        int const queueCount = random.between(2, 3);
        for (int i = 0; i < queueCount; ++i) {
            bool const doubles = random.oneIn(2);
            queues.push_back(std::make_unique<Queue>());
            queues.back()->doubles = doubles;
            queues.back()->real = doubles           ? makeQueue<NoStarveTaskRankingStrategy>()
                                  : random.oneIn(4) ? std::make_shared<SubmittedTasksQueue>(nullptr)
                                                    : makeQueue();
        }
        for (std::uint32_t i = 0; i < TASKS; ++i) {
            auto const priority = static_cast<TaskPriority>(random.between(1, 4));
            Entry entry;
            bool const isPlain = !random.oneIn(4);
            entry.task =
                isPlain ? submission(succeed(), priority)
                        : std::make_shared<HonestTask>(succeed(), priority, Callback(), "honest");
            auto const home = random.below(static_cast<std::uint32_t>(queueCount));
            entry.adds = {home};
            for (std::uint32_t more = random.oneIn(3) ? 1 + random.below(2) : 0; more > 0; --more) {
                entry.adds.push_back(random.below(static_cast<std::uint32_t>(queueCount)));
            }
            entry.isComputed = isPlain && entry.adds.size() == 1;
            entry.homeDoubles = queues[home]->doubles;
            entries.push_back(std::move(entry));
        }
    }

    // Empty, or what does not hold.
    std::string run() {
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < ADDERS; ++i) {
            threads.emplace_back([this, i] { add(i); });
        }
        for (std::size_t i = 0; i < CHANGERS; ++i) {
            threads.emplace_back([this, i, seed = random.next()] { change(i, seed); });
        }
        for (auto const& queue : queues) {
            threads.emplace_back([this, &queue = *queue, count = random.below(TASKS)] {
                ready();
                for (std::uint32_t i = 0; i < count; ++i) {
                    record(queue, queue.real->getNextTask());
                }
            });
        }
        bool const closes = random.oneIn(3);
        Queue& closing = *queues[random.below(static_cast<std::uint32_t>(queues.size()))];
        threads.emplace_back([&] {
            ready();
            if (closes) {
                closing.real->close();
            }
        });
        for (auto& thread : threads) {
            thread.join();
        }
        for (auto const& queue : queues) {
            queue->real->isClosed() ? checkClosed(*queue) : drain(*queue);
        }
        return failure;
    }

private:
    static constexpr std::uint32_t TASKS = 24;
    static constexpr std::size_t ADDERS = 2;
    static constexpr std::size_t CHANGERS = 2;
    static constexpr unsigned int HIGHEST_RANK = SubmittedTask::HIGHEST_CURRENT_RANK_VALUE;

    struct Queue {
        std::shared_ptr<SubmittedTasksQueue> real;
        bool doubles;
        std::mutex mutex;  // Guards the counts.
        std::map<SubmittedTask*, int> added;
        std::map<SubmittedTask*, int> picked;
    };
    struct Entry {
        std::shared_ptr<SubmittedTask> task;
        std::vector<std::uint32_t> adds;  // To which queues, in this order.
        bool isComputed;                  // Added once, and no subclass.
        bool homeDoubles;
    };

    void fail(std::string const& what) {
        std::lock_guard<std::mutex> const lock(mutex);
        if (failure.empty()) {
            failure = what;
        }
    }
    void expect(bool holds, char const* what) {
        if (!holds) {
            fail(what);
        }
    }

    // All threads begin together.
    void ready() {
        ++arrived;
        while (arrived < ADDERS + CHANGERS + queues.size() + 1) {
            std::this_thread::yield();
        }
    }

    void add(std::size_t adder) {
        ready();
        for (std::size_t turn = 0; turn < 3; ++turn) {
            for (std::size_t i = adder; i < entries.size(); i += ADDERS) {
                if (turn >= entries[i].adds.size()) {
                    continue;
                }
                Queue& queue = *queues[entries[i].adds[turn]];
                {
                    std::lock_guard<std::mutex> const lock(queue.mutex);
                    ++queue.added[entries[i].task.get()];
                }
                if (!queue.real->addTask(entries[i].task)) {
                    std::lock_guard<std::mutex> const lock(queue.mutex);
                    --queue.added[entries[i].task.get()];
                }
            }
        }
    }

    // The only one who changes these tasks.
    void change(std::size_t changer, std::uint64_t seed) {
        test::RandomSource choices(seed);
        ready();
        for (int i = 0; i < 200; ++i) {
            std::size_t const half = choices.below(TASKS / CHANGERS);
            Entry const& entry = entries[half * CHANGERS + changer];
            SubmittedTask& task = *entry.task;
            unsigned int given = 0;
            if (choices.oneIn(2)) {
                auto const priority = static_cast<TaskPriority>(choices.between(1, 4));
                task.setPriority(priority);
                given = submittedTaskPriorityToInitialRank(priority);
            } else {
                unsigned int const floor = submittedTaskPriorityToInitialRank(task.getPriority());
                unsigned int const rank = choices.word() >> choices.below(32);
                task.setRank(rank);
                given = std::max(std::min(rank, HIGHEST_RANK), floor);
            }
            std::uint64_t const seen = task.getRank();
            expect(seen >= 1 && seen <= HIGHEST_RANK, "a rank is in range");
            if (entry.isComputed) {
                std::uint64_t wanted = given;
                while (entry.homeDoubles && wanted < seen) {
                    wanted = std::min<std::uint64_t>(wanted * 2, HIGHEST_RANK);
                }
                expect(seen == wanted, "a new rank counts from when it is given");
            }
            if (choices.oneIn(50)) {
                task.setState(Executable::CANCELLED);
            }
            std::size_t const any = choices.below(TASKS);
            unsigned int const other = entries[any].task->getRank();
            expect(other >= 1 && other <= HIGHEST_RANK, "another's rank is in range");
        }
    }

    void record(Queue& queue, std::shared_ptr<SubmittedTask> const& task) {
        if (task) {
            std::lock_guard<std::mutex> const lock(queue.mutex);
            int const times = ++queue.picked[task.get()];
            expect(times <= queue.added[task.get()], "no task is handed out more often than added");
        }
    }

    // Only what was added behind the close may be left.
    void checkClosed(Queue& queue) {
        expect(queue.real->getNextTask() == nullptr, "a closed queue hands out nothing");
        for (auto const& [task, times] : queue.picked) {
            expect(times <= queue.added[task], "a closed queue handed out what was added");
        }
        queue.real.reset();
    }

    void drain(Queue& queue) {
        // Once more, to find every task of the queue by the rule.
        std::vector<SubmittedTask*> queued;
        for (auto const& entry : entries) {
            SubmittedTask* const task = entry.task.get();
            int const left = queue.added[task] - queue.picked[task];
            // A pick takes out each place of a task. Whether one that was picked before all was
            // added is there again is for the picks to show.
            if (left > 0 && queue.picked[task] == 0) {
                queued.push_back(task);
            }
        }
        for (;;) {
            std::map<SubmittedTask*, unsigned int> before;
            unsigned int best = 0;
            for (auto const& entry : entries) {
                before[entry.task.get()] = entry.task->getRank();
            }
            for (SubmittedTask* const task : queued) {
                best = std::max(best, scoreOf(*task, before[task]));
            }
            auto const picked = queue.real->getNextTask();
            if (!picked) {
                expect(queued.empty(), "no task is lost");
                expect(queue.real->isEmpty(), "an empty queue says so");
                return;
            }
            record(queue, picked);
            // A task that stands twice in a list is doubled, and compared, at each place.
            bool const isCompared = !queue.doubles || queue.added[picked.get()] == 1;
            expect(!isCompared || scoreOf(*picked, before[picked.get()]) >= best,
                   "the best task is picked");
            for (SubmittedTask* const task : queued) {
                std::uint64_t const rank = before[task];
                unsigned int const floor = submittedTaskPriorityToInitialRank(task->getPriority());
                // In two queues at once, a rank may have been below the floor for a while.
                std::uint64_t const doubled =
                    std::max<std::uint64_t>(std::min<std::uint64_t>(rank * 2, HIGHEST_RANK), floor);
                std::uint64_t const expected = queue.doubles ? doubled : rank;
                if (queue.added[task] == 1) {
                    expect(task->getRank() == expected, "a pick updates each rank once");
                }
            }
            queued.erase(std::remove(queued.begin(), queued.end(), picked.get()), queued.end());
        }
    }

    static unsigned int scoreOf(SubmittedTask const& task, unsigned int rank) {
        return rank + static_cast<unsigned int>(task.getUniqueIndex());
    }

    test::RandomSource random;
    std::vector<std::unique_ptr<Queue>> queues;
    std::vector<Entry> entries;
    std::atomic<std::size_t> arrived{0};
    std::mutex mutex;
    std::string failure;
};

}  // namespace ovra::concurrent::stress
