#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <ovra/ovra.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/Gate.h>
#include <tests/support/LogSinks.h>

// No line of these tests reaches the machine's system log.
extern "C" __attribute__((visibility("default"))) void syslog(int, char const*, ...) {}

namespace ovra {

namespace {

using namespace concurrent;
using fs::FileHandle;
using test::CountingSink;
using test::Gate;

class LimitsTest : public fs::test::TemporaryDirectoryTest {};

class LimitedDescriptors {
public:
    explicit LimitedDescriptors(rlim_t count) {
        getrlimit(RLIMIT_NOFILE, &before);
        struct rlimit limit = before;
        limit.rlim_cur = count;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            throw std::runtime_error("setrlimit");
        }
    }
    LimitedDescriptors(LimitedDescriptors const&) = delete;
    LimitedDescriptors& operator=(LimitedDescriptors const&) = delete;
    ~LimitedDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }

private:
    struct rlimit before = {};
};

class StackSize {
public:
    explicit StackSize(std::size_t bytes) {
        pthread_getattr_default_np(&before);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, bytes);
        if (pthread_setattr_default_np(&attributes) != 0) {
            throw std::runtime_error("pthread_setattr_default_np");
        }
        pthread_attr_destroy(&attributes);
    }
    StackSize(StackSize const&) = delete;
    StackSize& operator=(StackSize const&) = delete;
    ~StackSize() {
        pthread_setattr_default_np(&before);
        pthread_attr_destroy(&before);
    }

private:
    pthread_attr_t before;
};

std::shared_ptr<SubmittedTasksQueue> newQueue() {
    return std::make_shared<SubmittedTasksQueue>(std::make_shared<NoStarveTaskRankingStrategy>());
}

// A chain of directories, the innermost with a file.
void makeChain(std::string const& root, int depth) {
    std::string path = root;
    for (int level = 0; level < depth; ++level) {
        fs::test::makeDirectory(path);
        path += "/d";
    }
    fs::test::writeFile(path);
}

TEST_F(LimitsTest, WithThirtyTwoDescriptorsEverythingFailsClearlyAndGoesOnAfterwards) {
    constexpr int DEPTH = 60;
    makeChain(at("chain"), DEPTH);
    fs::test::makeDirectory(at("directory"));
    fs::test::writeFile(at("directory/file"), "kept");
    FileHandle chain(at("chain"));
    FileHandle directory(at("directory"));
    FileHandle file(at("directory/file"));
    FileHandle copy(at("copy"));
    TaskExecutorImpl executor(2, newQueue());
    auto const logTo = [&](std::string const& name) {
        log::createLogHandler(log::FILE_HANDLER, at(name).c_str())
            ->handleLogMessage("a line", log::ERROR);
    };
    auto const runTask = [&] {
        auto const handle =
            executor.submitTask([] { return Executable::SUCCESS; }, NORMAL, nullptr, "a task");
        handle->waitForCompletion();
        return handle->getResult();
    };
    // Before as well: a sanitizer opens descriptors of its own for types that it has not seen.
    logTo("log");
    EXPECT_EQ(runTask(), Executable::SUCCESS);
    EXPECT_TRUE(file.CreateInputStream(std::ios_base::in)->good());
    EXPECT_TRUE(file.Copy(copy));
    EXPECT_TRUE(copy.Remove());
    {
        LimitedDescriptors const limit(32);
        EXPECT_FALSE(chain.RemoveDirectoryRecursive());
        EXPECT_TRUE(chain.IsDirectory());

        std::vector<std::unique_ptr<std::ostream>> streams;
        do {
            ASSERT_LT(streams.size(), 64u) << "the limit is not kept";
            streams.push_back(FileHandle(at("stream" + std::to_string(streams.size())))
                                  .CreateOutputStream(std::ios_base::out));
        } while (streams.back()->good());
        EXPECT_GT(streams.size(), 10u);

        EXPECT_TRUE(file.CreateInputStream(std::ios_base::in)->fail());
        EXPECT_FALSE(file.Copy(copy));
        EXPECT_FALSE(copy.Exists());
        EXPECT_TRUE(directory.ListDirectory().empty());
        EXPECT_TRUE(directory.Begin() == directory.End());
        EXPECT_FALSE(directory.RemoveDirectoryRecursive());
        EXPECT_EQ(file.Size(), 4) << "queries need no descriptor";
        logTo("discarded");
        EXPECT_FALSE(fs::test::entryExists(at("discarded")));
        EXPECT_EQ(runTask(), Executable::SUCCESS) << "nor do tasks";

        streams.pop_back();
        for (auto const& stream : streams) {
            EXPECT_TRUE(*stream << "still open" << std::flush);
        }
    }
    EXPECT_TRUE(file.Copy(copy));
    EXPECT_EQ(directory.ListDirectory(), std::vector<std::string>{"file"});
    EXPECT_TRUE(directory.RemoveDirectoryRecursive());
    EXPECT_TRUE(chain.RemoveDirectoryRecursive());
    EXPECT_FALSE(chain.Exists());
}

TEST_F(LimitsTest, WorkersDoTheirWorkOnSmallStacks) {
    // What a sanitizer keeps on the stack for itself comes on top.
    constexpr std::size_t STACK = (test::SANITIZED ? 4096 : 64) * 1024;
    constexpr int DEPTH = 24;
    StackSize const stackSize(STACK);
    makeChain(at("chain"), DEPTH);
    log::setLogLevel(log::VERBOSE);
    log::addLogHandler(log::FILE_HANDLER, at("log").c_str());
    std::atomic<std::size_t> stackOfWorker{0};
    bool isRemoved = false;
    {
        TaskExecutorImpl executor(12, newQueue());
        std::vector<std::shared_ptr<TaskHandle>> handles;
        handles.push_back(executor.submitTask(
            [&] {
                pthread_attr_t attributes;
                pthread_getattr_np(pthread_self(), &attributes);
                std::size_t bytes = 0;
                pthread_attr_getstacksize(&attributes, &bytes);
                pthread_attr_destroy(&attributes);
                stackOfWorker = bytes;
                isRemoved = FileHandle(at("chain")).RemoveDirectoryRecursive();
                return Executable::SUCCESS;
            },
            HIGHEST, nullptr, "remove a tree"));
        handles.push_back(executor.submitTask(
            []() -> Executable::Result { throw std::runtime_error("as it should"); }, NORMAL,
            nullptr, "throw"));
        handles.push_back(executor.submitTask(
            [&] {
                FileHandle file(at("file"));
                FileHandle copy(at("copy"));
                *file.CreateOutputStream(std::ios_base::out) << std::string(100000, 'x');
                return file.Copy(copy) && copy.Size() == 100000 ? Executable::SUCCESS
                                                                : Executable::FAILURE;
            },
            NORMAL, nullptr, "copy"));
        handles.push_back(executor.submitTask(
            [] {
                log::log(log::ERROR, "task", "%s", std::string(100000, 'x').c_str());
                return Executable::SUCCESS;
            },
            NORMAL, nullptr, "log"));
        for (auto const& handle : handles) {
            handle->waitForCompletion();
        }
        EXPECT_EQ(handles[0]->getResult(), Executable::SUCCESS);
        EXPECT_EQ(handles[1]->getResult(), Executable::FAILURE);
        EXPECT_EQ(handles[2]->getResult(), Executable::SUCCESS);
        EXPECT_EQ(handles[3]->getResult(), Executable::SUCCESS);
    }
    log::setLogLevel(log::ERROR);
    log::addLogHandler(log::PLATFORM_HANDLER, at("log").c_str());  // Closes the file.
    EXPECT_LE(stackOfWorker, 2 * STACK);
    EXPECT_TRUE(isRemoved);
    EXPECT_GT(FileHandle(at("log")).Size(), 100000);
}

/// Runs `body` in a process of its own. Whether it passed.
bool passesInChild(std::function<void()> const& body) {
    std::fflush(nullptr);
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        body();
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

constexpr rlim_t MEBIBYTE = 1024 * 1024;

// No more address space than `bytes` beyond what is in use. Whether the system keeps to it.
bool limitAddressSpace(rlim_t bytes) {
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    struct rlimit limit = {};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes;
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        return false;
    }
    void* const tooMuch = mmap(nullptr, 2 * static_cast<std::size_t>(bytes), PROT_NONE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (tooMuch == MAP_FAILED) {
        return true;
    }
    munmap(tooMuch, 2 * static_cast<std::size_t>(bytes));
    return false;
}

void liftAddressSpaceLimit() {
    struct rlimit limit = {};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
}

void workWithoutMemory(std::string const& directory) {
    FileHandle file(directory + "/file");
    FileHandle copy(directory + "/copy");
    std::string const longText(24 * MEBIBYTE, 'x');
    auto const sink = std::make_shared<CountingSink>();
    log::addLogHandler(sink, "sink");
    Gate started(1);
    Gate gate;
    std::atomic<int> ran{0};
    TaskExecutorImpl executor(1, newQueue());
    auto const blocking = executor.submitTask(
        [&] {
            started.open();
            gate.wait();
            return Executable::SUCCESS;
        },
        HIGHEST, nullptr, "block");
    started.wait();
    EXPECT_TRUE(limitAddressSpace(64 * MEBIBYTE));

    EXPECT_THROW(TaskExecutorImpl(12, newQueue()), std::system_error)
        << "there is no room for twelve stacks";
    int const linesBefore = sink->lines;
    log::log(log::ERROR, "tag", "%s %s %s", longText.c_str(), longText.c_str(), longText.c_str());
    EXPECT_EQ(sink->lines, linesBefore) << "a line that does not fit is dropped";

    int accepted = 0;
    std::vector<std::shared_ptr<TaskHandle>> handles;
    handles.reserve(4096);
    auto const submitMany = [&] {
        for (int i = 0; i < 4000; ++i) {
            auto const payload = std::make_shared<std::vector<char>>(100 * 1024, 'x');
            auto handle = executor.submitTask(
                [&ran, payload] {
                    ++ran;
                    return Executable::SUCCESS;
                },
                LOW, nullptr, "payload");
            ASSERT_NE(handle, nullptr);
            handles.push_back(std::move(handle));
            ++accepted;
        }
    };
    EXPECT_THROW(submitMany(), std::bad_alloc);
    EXPECT_GT(accepted, 100);
    EXPECT_THROW(FileHandle{longText}.Path().Resolved(), std::bad_alloc);
    EXPECT_TRUE(file.IsFile()) << "what needs little goes on";
    EXPECT_FALSE(executor.isIdle());

    liftAddressSpaceLimit();
    gate.open();
    for (auto const& handle : handles) {
        handle->waitForCompletion();
        EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
    }
    EXPECT_EQ(ran, accepted) << "what was accepted runs, what was refused does not";
    log::log(log::ERROR, "tag", "%s", longText.c_str());
    EXPECT_EQ(sink->lines, linesBefore + 1);
    EXPECT_TRUE(file.Copy(copy));
    TaskExecutorImpl other(12, newQueue());
    auto const handle =
        other.submitTask([] { return Executable::SUCCESS; }, NORMAL, nullptr, "a task");
    handle->waitForCompletion();
    EXPECT_EQ(handle->getResult(), Executable::SUCCESS);
}

TEST_F(LimitsTest, WithoutMemoryEverythingFailsClearlyAndGoesOnAfterwards) {
    if (test::SANITIZED) {
        GTEST_SKIP() << "A sanitizer takes the whole address space for itself.";
    }
    if (!passesInChild([] { _exit(limitAddressSpace(64 * MEBIBYTE) ? 0 : 1); })) {
        GTEST_SKIP() << "No limit on the address space is kept: an emulator does not pass it on.";
    }
    fs::test::writeFile(at("file"), "kept");
    EXPECT_TRUE(passesInChild([this] { workWithoutMemory(root); }));
}

}  // namespace

}  // namespace ovra
