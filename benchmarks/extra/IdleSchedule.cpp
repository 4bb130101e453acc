// How often the thread of `ScheduledTasks` is switched to while nothing is due.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/extra/ScheduledTasks.h>

#include <benchmarks/support/Run.h>

namespace ovra::bench {

namespace {

struct Thread {
    bool isAsleep = false;
    std::int64_t switches = 0;
};

Thread scheduledThread() {
    Thread found;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(entry.path() / "status");
        std::string field;
        std::string value;
        bool isIt = false;
        while (status >> field) {
            if (field == "Name:" && status >> value) {
                isIt = value == "ovra-scheduled";
            } else if (isIt && field == "State:" && status >> value) {
                found.isAsleep = value == "S";
            } else if (isIt && field.find("ctxt_switches:") != std::string::npos) {
                status >> value;
                found.switches += std::stoll(value);
            }
        }
    }
    return found;
}

void idle(Run& run) {
    extra::ScheduledTasks scheduled(concurrent::getNoStarveTaskExecutor());
    scheduled.every(
        std::chrono::hours(1), [] { return concurrent::Executable::SUCCESS; }, concurrent::NORMAL,
        "hourly");
    while (!scheduledThread().isAsleep) {
        std::this_thread::yield();
    }
    std::int64_t const before = scheduledThread().switches;
    if (before == 0) {
        run.fail("The thread was not found.");
    }
    std::this_thread::sleep_for(std::chrono::seconds(run.number("seconds", 10)));
    run.report("switches", static_cast<double>(scheduledThread().switches - before));
}

[[maybe_unused]] bool const isAdded = Run::add("idle", "ovra-extra ScheduledTasks", idle);

}  // namespace

}  // namespace ovra::bench
