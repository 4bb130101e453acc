#include <ovra/extra.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <ovra/concurrent/TaskExecutors.h>

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

// Uses a little of each part of the second library.
int main() {
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
    works = tasksWork() && works;
    unlink(file.c_str());
    rmdir(directory.c_str());
    std::printf("ovra-extra: %s\n", works ? "works" : "does not work");
    return works ? 0 : 1;
}
