// schedule <times>: counts down from that number, every millisecond by one.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>

#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/extra.h>

using namespace ovra::concurrent;
using std::chrono::milliseconds;

int main(int, char** arguments) {
    struct State {
        int left;
        std::promise<void> done;
    };
    auto const state = std::make_shared<State>();
    state->left = std::atoi(arguments[1]);

    ovra::extra::ScheduledTasks scheduled(getHighestPriorityTaskExecutor());
    // A task may outlive the schedule, so it owns what it uses.
    scheduled.every(
        milliseconds(1),
        [state] {
            if (state->left > 0) {
                std::printf("%d left\n", --state->left);
                if (state->left == 0) {
                    state->done.set_value();
                }
            }
            return Executable::SUCCESS;
        },
        NORMAL, "count down");
    state->done.get_future().wait();
}
