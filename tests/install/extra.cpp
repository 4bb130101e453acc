#include <ovra/extra.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/log/Log.h>

using namespace ovra::extra;

// The templates, as this consumer's compiler and its options make them.
static bool tasksWork() {
    auto const executor = ovra::concurrent::getNoStarveTaskExecutor();
    auto number = submitAsync(*executor, [held = std::make_unique<int>(7)] { return *held; });
    auto waiting = submitAsync(*executor, [](StopFlag const& stop) {
        while (!stop.isRaised()) {
        }
    });
    auto dropped = submitAsync(*executor, [] {});
    dropped.cancel();
    waiting.cancel();
    dropped.future.wait();
    auto const task = makeTask([] { return ovra::concurrent::Executable::FAILURE; }, "made");
    return number.future.get() == 7 && task->execute() == ovra::concurrent::Executable::FAILURE;
}

// Uses a little of each part of the second library. As an ordinary user: it could harm nothing,
// whatever was built into the library.
int main() {
    if (geteuid() == 0 && (setegid(65534) != 0 || seteuid(65534) != 0)) {
        return 1;
    }
    std::string directory = "/tmp/ovra-consumer-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        return 1;
    }
    std::string const file = directory + "/file";
    Space space;
    bool works;
    {
        LockFile lock(file);
        works = replaceFile(file, "contents") == Outcome::DONE && syncFile(file) == Outcome::DONE &&
                lock.tryLock() == Outcome::DONE && readSpace(file, space) == Outcome::DONE &&
                space.totalBytes > 0 && removeTree(std::string()) == Outcome::MISSING &&
                attempt([] { return false; }) == Outcome::REFUSED;
    }
    std::string const log = directory + "/log";
    auto const lines = std::make_shared<RotatingFileLogHandler>(log);
    auto const recent = std::make_shared<RecentLinesLogHandler>(10);
    auto const both = std::make_shared<SwitchLogHandler>(lines);
    ovra::log::addLogHandler(both, "file");
    ovra::log::setLogLevel(ovra::log::INFO);
    for (int round = 0; round < 3; ++round) {
        OVRA_LOG_EVERY(1000000, ovra::log::INFO, "consumer", "line %d", round);
    }
    works = works && lines->sync() && lines->lostLines() == 0;
    both->exchange(recent);
    OVRA_LOG_EVERY(1000000, ovra::log::INFO, "consumer", "kept %s", "line");
    std::FILE* const dump = std::fopen(file.c_str(), "w+");
    char text[100] = {};
    works = works && dump != nullptr && recent->writeTo(fileno(dump));
    if (dump != nullptr) {
        std::rewind(dump);
        works = works && std::fgets(text, sizeof text, dump) != nullptr &&
                text == std::string("[consumer:INFO] kept line\n");
        std::fclose(dump);
    }
    unlink(log.c_str());
    works = tasksWork() && works;
    unlink(file.c_str());
    rmdir(directory.c_str());
    std::printf("ovra-extra: %s\n", works ? "works" : "does not work");
    return works ? 0 : 1;
}
