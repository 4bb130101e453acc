// Random races for the same tasks and queues, round after round, until the time is over.
//
//   race <seconds> <seed>
//
// Prints the number of rounds and of steps, or what does not hold and the round's seed. tools/soak
// --race builds and runs it under ThreadSanitizer.

#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <tests/stress/QueueRace.h>

namespace {

using namespace ovra::concurrent;
using ovra::test::RandomSource;

// Every thread does anything to any of a few tasks and to either of two queues. Only what holds in
// every order can be expected: ranks stay in range, and no task is lost or leaked.
class FreeForAll {
public:
    explicit FreeForAll(std::uint64_t seed) : random(seed) {
        queues = {makeQueue(), makeQueue<NoStarveTaskRankingStrategy>()};
        handles.reserve(TASKS);
        for (auto& task : tasks) {
            task = submission(succeed(), static_cast<TaskPriority>(random.between(1, 4)));
            handles.push_back(linkHandle(task));
        }
    }

    std::string run() {
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([this, choices = RandomSource(random.next())]() mutable {
                for (int step = 0; step < STEPS; ++step) {
                    doAnything(choices);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        for (auto& queue : queues) {
            while (queue->getNextTask()) {
            }
            expect(queue->isClosed() || queue->isEmpty());
            queue.reset();
        }
        for (auto const& task : tasks) {
            expect(task.use_count() == 1);
        }
        return isRight ? "" : "a rank out of range, a task lost or leaked";
    }

    static constexpr int STEPS = 300;
    static constexpr int THREADS = 4;

private:
    void doAnything(RandomSource& choices) {
        std::size_t const chosen = choices.below(TASKS);
        SubmittedTask& task = *tasks[chosen];
        SubmittedTasksQueue& queue = *queues[choices.below(2)];
        switch (choices.oneIn(200) ? 8 : choices.below(8)) {
            case 0:
                task.setRank(choices.word() >> choices.below(32));
                break;
            case 1:
                task.setPriority(static_cast<TaskPriority>(choices.between(1, 4)));
                break;
            case 2:
                handles[chosen]->updatePriority(static_cast<TaskPriority>(choices.between(1, 4)));
                break;
            case 3:
                handles[chosen]->cancel();
                break;
            case 4:
                queue.addTask(tasks[chosen]);
                break;
            case 5:
                queue.getNextTask();
                break;
            case 6:
                expect(task.getRank() - 1 < SubmittedTask::HIGHEST_CURRENT_RANK_VALUE);
                break;
            case 7:
                queue.isEmpty();
                break;
            default:
                queue.close();
                break;
        }
    }

    void expect(bool holds) {
        if (!holds) {
            isRight = false;
        }
    }

    static constexpr std::size_t TASKS = 6;
    RandomSource random;
    std::array<std::shared_ptr<SubmittedTasksQueue>, 2> queues;
    std::array<std::shared_ptr<SubmittedTask>, TASKS> tasks;
    std::vector<std::shared_ptr<TaskHandle>> handles;
    std::atomic<bool> isRight{true};
};

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("race <seconds> <seed>\n", stderr);
        return 2;
    }
    auto const end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(std::strtol(arguments[1], nullptr, 10));
    RandomSource seeds(std::strtoull(arguments[2], nullptr, 0));
    std::int64_t rounds = 0;
    for (; std::chrono::steady_clock::now() < end; ++rounds) {
        std::uint64_t const seed = seeds.next();
        std::string wrong = FreeForAll(seed).run();
        if (wrong.empty()) {
            wrong = stress::QueueRace(seed).run();
        }
        if (!wrong.empty()) {
            std::printf("round %" PRId64 ", seed %" PRIu64 ": %s\n", rounds, seed, wrong.c_str());
            return 1;
        }
    }
    std::printf("%" PRId64
                " rounds, each of %d steps by %d threads on the same tasks, and of a race"
                " with exact ranks\n",
                rounds, FreeForAll::STEPS, FreeForAll::THREADS);
    return 0;
}
