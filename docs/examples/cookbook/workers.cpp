// Workers with a small stack, on one processor, scheduled as batch work.

#include <pthread.h>
#include <sched.h>

#include <cstddef>
#include <iostream>
#include <memory>

#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskRankingStrategy.h>

using namespace ovra::concurrent;

namespace {

// A thread takes its stack size from the process, and its processors and scheduling class from the
// thread that starts it. Call this before other threads of the application start.
std::shared_ptr<TaskExecutor> makeBackgroundExecutor() {
    pthread_attr_t before;
    pthread_attr_t small;
    pthread_getattr_default_np(&before);
    pthread_getattr_default_np(&small);
    pthread_attr_setstacksize(&small, 1024 * 1024);
    pthread_setattr_default_np(&small);

    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (std::size_t cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            CPU_SET(cpu, &one);
        }
    }
    sched_setaffinity(0, sizeof one, &one);

    sched_param const unused{};
    sched_setscheduler(0, SCHED_BATCH, &unused);

    auto const queue =
        std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>());
    auto const executor = std::make_shared<TaskExecutorImpl>(2, queue);

    sched_setscheduler(0, SCHED_OTHER, &unused);
    sched_setaffinity(0, sizeof allowed, &allowed);
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&small);
    pthread_attr_destroy(&before);
    return executor;
}

}  // namespace

int main() {
    auto const executor = makeBackgroundExecutor();
    auto const handle = executor->submitTask(
        [] {
            pthread_attr_t mine;
            std::size_t stackBytes = 0;
            pthread_getattr_np(pthread_self(), &mine);
            pthread_attr_getstacksize(&mine, &stackBytes);
            pthread_attr_destroy(&mine);
            cpu_set_t cpus;
            sched_getaffinity(0, sizeof cpus, &cpus);
            std::cout << stackBytes / 1024 << " KiB of stack, " << CPU_COUNT(&cpus)
                      << " processor, "
                      << (sched_getscheduler(0) == SCHED_BATCH ? "batch" : "other") << '\n';
            return Executable::SUCCESS;
        },
        LOW, nullptr, "background");
    handle->waitForCompletion();
}
