// Runs tasks, logs and files together for some seconds, and prints each second what it has done.
// tools/soak starts it and watches what it holds.
//
//   soak <directory> <seconds>

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ovra/ovra.h>
#include <tests/stress/QueueRace.h>
#include <tests/support/RandomSource.h>

// The machine's system log is no place for a soak.
extern "C" __attribute__((visibility("default"))) void syslog(int, char const*, ...) {}

namespace {

using namespace ovra::concurrent;
using ovra::fs::FileHandle;
using ovra::test::RandomSource;

std::atomic<bool> isOver{false};
std::atomic<long> tasksDone{0};
std::atomic<long> linesLogged{0};
std::atomic<long> filesDone{0};
std::atomic<long> surprises{0};

void expect(bool holds, char const* what) {
    if (!holds && ++surprises <= 20) {
        std::fprintf(stderr, "not so: %s\n", what);
    }
}

// Keeps a window of tasks under way: waits for the oldest, cancels, re-ranks.
void submitTasks(std::uint64_t seed) {
    constexpr std::size_t WINDOW = 64;
    RandomSource random(seed);
    auto const own = std::make_shared<TaskExecutorImpl>(
        3, std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>()));
    std::vector<std::shared_ptr<TaskExecutor>> const executors = {own, getNoStarveTaskExecutor(),
                                                                  getHighestPriorityTaskExecutor()};
    std::deque<std::shared_ptr<TaskHandle>> underWay;
    while (!isOver) {
        auto const priority = static_cast<TaskPriority>(random.between(1, 4));
        int const kind = random.between(0, 9);
        auto handle = executors[random.below(3)]->submitTask(
            [kind, left = kind]() mutable -> Executable::Result {
                ++tasksDone;
                if (kind == 9) {
                    throw std::runtime_error("one in ten");
                }
                return kind > 6 && left-- > 0 ? Executable::REPEAT : Executable::SUCCESS;
            },
            priority, [](std::shared_ptr<Task> const&) {}, "soak");
        expect(handle != nullptr, "an open executor accepts work");
        if (kind == 0) {
            handle->cancel();
        } else if (kind == 1) {
            handle->updatePriority(HIGHEST);
        }
        underWay.push_back(std::move(handle));
        if (underWay.size() > WINDOW) {
            underWay.front()->waitForCompletion();
            expect(underWay.front()->getResult() != Executable::NO_RESULT, "a task has a result");
            underWay.pop_front();
        }
    }
    for (auto const& handle : underWay) {
        handle->waitForCompletion();
    }
}

// Queues that several threads add to, pick from, re-rank and close at once.
void raceQueues() {
    RandomSource seeds(5);
    while (!isOver) {
        std::string const failure = stress::QueueRace(seeds.next()).run();
        expect(failure.empty(), failure.c_str());
    }
}

void writeLogs(std::string const& directory) {
    while (!isOver) {
        // Of its own: the registry is filled before there are threads.
        auto const sink = ovra::log::createLogHandler(ovra::log::FILE_HANDLER, directory.c_str());
        for (int i = 0; i < 500; ++i) {
            ovra::log::log(ovra::log::WARNING, "writeLogs()", "line %d of %s", i,
                           directory.c_str());
            sink->handleLogMessage("a line that goes to one file only", ovra::log::INFO);
            ++linesLogged;
        }
    }
}

void workOnFiles(std::string const& root) {
    RandomSource random(3);
    for (long round = 0; !isOver; ++round) {
        FileHandle top(root + "/tree");
        expect(top.CreateDirectory(), "a directory is made");
        for (int i = random.between(2, 6); i > 0; --i) {
            FileHandle inner = top.Open("inner" + std::to_string(i));
            expect(inner.CreateDirectory(), "an inner directory is made");
            FileHandle file = inner.Open("file");
            *file.CreateOutputStream(std::ios_base::binary)
                << std::string(random.below(20000), 'x');
            FileHandle copy = inner.Open("copy");
            expect(file.Copy(copy), "a file is copied");
            expect(copy.Size() == file.Size(), "a copy is as long");
            expect(copy.Rename("renamed"), "a file is renamed");
            FileHandle link = inner.Open("link");
            expect(file.CreateSymbolicLink(link), "a link is made");
            expect(inner.ListDirectory().size() == 3, "a directory is listed");
            // Left behind by its file, it would hang in the air and stay.
            expect(link.Remove(), "a link is removed");
            expect(copy.Move(top), "a file is moved");
            copy = top.Open("renamed");
            expect(copy.Remove(), "a file is removed");
        }
        int entries = 0;
        for (auto entry = top.Begin(); entry != top.End(); ++entry) {
            ++entries;
        }
        expect(entries >= 2, "a directory is scanned");
        expect(top.RemoveDirectoryRecursive(), "a tree is removed");
        ++filesDone;
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("soak <directory> <seconds>\n", stderr);
        return 2;
    }
    std::string const directory = arguments[1];
    ovra::log::setLogLevel(ovra::log::INFO);
    ovra::log::addLogHandler(ovra::log::FILE_HANDLER, "/dev/null");
    std::vector<std::thread> threads;
    threads.emplace_back(submitTasks, 1);
    threads.emplace_back(submitTasks, 2);
    threads.emplace_back(raceQueues);
    threads.emplace_back(writeLogs, directory);
    threads.emplace_back(workOnFiles, directory);
    for (long second = 0; second < std::atol(arguments[2]); ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::printf("%ld %ld %ld\n", tasksDone.load(), linesLogged.load(), filesDone.load());
        std::fflush(stdout);
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return surprises == 0 ? 0 : 1;
}
