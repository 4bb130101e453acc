// watchdog: notices a task that does not end, and says which.

#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/extra.h>

using namespace ovra::concurrent;
using std::chrono::milliseconds;

int main() {
    auto const executor =
        std::make_shared<ovra::extra::MonitoredExecutor>(getHighestPriorityTaskExecutor());
    ovra::extra::StopFlag stop;
    executor->submitTask(
        [stop] {
            while (!stop.isRaised()) {
                std::this_thread::yield();
            }
            return Executable::SUCCESS;
        },
        NORMAL, {}, "stuck");
    executor->submitTask([] { return Executable::SUCCESS; }, LOW, {}, "patient");

    // In a service this loop is the main thread's, which feeds the system's watchdog as well.
    while (executor->counts().oldestRunning < milliseconds(20)) {
        std::this_thread::sleep_for(milliseconds(5));
    }
    executor->writeTo(STDOUT_FILENO);
    stop.raise();
}
