// An application that is not linked with the library, and meets it through plug-ins.

#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/lifecycle/Plugin.h>
#include <tests/support/Bounded.h>
#include <tests/support/Mapped.h>

namespace ovra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::mutex eventsMutex;
std::vector<std::string> events;

void report(char const* event) {
    std::lock_guard<std::mutex> const lock(eventsMutex);
    events.emplace_back(event);
}

std::vector<std::string> takeEvents() {
    std::lock_guard<std::mutex> const lock(eventsMutex);
    return std::exchange(events, {});
}

class LoadedPlugin {
public:
    explicit LoadedPlugin(char const* path) : LoadedPlugin(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    explicit LoadedPlugin(void* loaded) : handle(loaded) {
        if (handle == nullptr) {
            ADD_FAILURE() << dlerror();
            std::abort();
        }
        functions = static_cast<Plugin const*>(dlsym(handle, "plugin"));
    }
    LoadedPlugin(LoadedPlugin const&) = delete;
    LoadedPlugin& operator=(LoadedPlugin const&) = delete;
    ~LoadedPlugin() { unload(); }

    void unload() {
        if (handle != nullptr) {
            EXPECT_EQ(dlclose(std::exchange(handle, nullptr)), 0);
        }
    }
    Plugin const* operator->() const { return functions; }

private:
    void* handle;
    Plugin const* functions;
};

auto threads() {
    namespace stdfs = std::filesystem;
    return std::distance(stdfs::directory_iterator("/proc/self/task"), stdfs::directory_iterator());
}

void loadAndUnload(std::string const& situation) {
    LoadedPlugin library(LIFECYCLE_PLUGIN);
    Gate isTaken;
    Gate waiterIsOut;
    library->begin(situation.c_str(), &waiterIsOut, report);
    std::thread waiter;
    if (situation == "waited") {
        // The last code of the library that this thread runs is behind it when the gate opens.
        waiter = std::thread([&] {
            library->wait(&isTaken);
            waiterIsOut.open();
        });
        isTaken.wait();
        yieldUntil([&] { return library->isAwaited(); });
    }
    library.unload();
    if (waiter.joinable()) {
        waiter.join();
    }
}

class UnloadTest : public BoundedTest, public ::testing::WithParamInterface<char const*> {};

TEST_P(UnloadTest, EndsTheWorkerAndLeavesNothingBehind) {
    std::string const situation = GetParam();
    std::vector<std::string> expected;
    if (situation == "queued") {
        expected = {"queued work dropped", "work ended", "called back"};
    } else if (situation != "idle") {
        expected = {"work ended", "called back"};
    }
    // Asked of a thread: a thread checker starts one of its own with the first.
    std::ptrdiff_t threadsBefore = 0;
    std::thread([&] { threadsBefore = threads() - 1; }).join();
    std::size_t inUse = 0;
    std::size_t mappings = 0;
    int const rounds = scaled(1000);
    for (int round = 0; round < rounds; ++round) {
        loadAndUnload(situation);

        ASSERT_EQ(takeEvents(), expected) << "in round " << round;
        // The system may list a thread a little longer than it takes to join it.
        yieldUntil([&] { return threads() == threadsBefore; });
        ASSERT_THAT(mapped("libovra"), IsEmpty()) << "in round " << round;
        ASSERT_THAT(mapped("lifecyclePlugin"), IsEmpty()) << "in round " << round;
        if (round == rounds / 10) {
            inUse = mallinfo2().uordblks;
            mappings = mapped("").size();
        }
    }
    if (!SANITIZED) {  // A sanitizer maps as it goes, and does not count what is in use.
        // Less than the smallest thing that could be forgotten in every round.
        auto const ofTheRest = static_cast<std::size_t>(rounds - rounds / 10);
        EXPECT_LT(mallinfo2().uordblks, inUse + 16 * ofTheRest + 4096);
        EXPECT_LT(mapped("").size(), mappings + 16);
    }
}

INSTANTIATE_TEST_SUITE_P(Situations, UnloadTest,
                         ::testing::Values("idle", "queued", "running", "callback", "waited"));

class CopiesTest : public BoundedTest {};

void expectApart(LoadedPlugin& first, LoadedPlugin& second) {
    first->setLogLevel(5);
    second->setLogLevel(1);
    EXPECT_EQ(first->getLogLevel(), 5);
    EXPECT_EQ(second->getLogLevel(), 1);
    EXPECT_NE(first->sharedExecutor(), second->sharedExecutor());
    first->runOne();
    second->runOne();
    Gate unused;
    first->begin("running", &unused, report);
    second->runOne();
    EXPECT_THAT(takeEvents(), IsEmpty());

    first.unload();
    EXPECT_THAT(takeEvents(), ElementsAre("work ended", "called back"));
    second->runOne();
    EXPECT_EQ(second->getLogLevel(), 1);
    second.unload();
}

TEST_F(CopiesTest, TwoCopiesLoadedLocallyAreTwoLibraries) {
    LoadedPlugin first(LIFECYCLE_PLUGIN);
    LoadedPlugin second(LIFECYCLE_PLUGIN_WITH_COPY);
    EXPECT_THAT(mapped("libovra-copy"), Not(IsEmpty()));
    expectApart(first, second);
    EXPECT_THAT(mapped("libovra"), IsEmpty());
}

TEST_F(CopiesTest, OneLibraryInTwoNamespacesIsTwoLibraries) {
    if (SANITIZED) {
        GTEST_SKIP() << "A second namespace would bring a sanitizer runtime of its own.";
    }
    LoadedPlugin first(LIFECYCLE_PLUGIN);
    LoadedPlugin second(dlmopen(LM_ID_NEWLM, LIFECYCLE_PLUGIN, RTLD_NOW | RTLD_LOCAL));
    expectApart(first, second);
    EXPECT_THAT(mapped("libovra"), IsEmpty());
}

TEST_F(CopiesTest, TwoPluginsWithTheSameLibraryShareIt) {
    LoadedPlugin first(LIFECYCLE_PLUGIN);
    LoadedPlugin second(LIFECYCLE_PLUGIN_TWIN);
    first->setLogLevel(5);
    EXPECT_EQ(second->getLogLevel(), 5);
    EXPECT_EQ(first->sharedExecutor(), second->sharedExecutor());
    first.unload();
    second->runOne();
    EXPECT_EQ(second->getLogLevel(), 5);
    second.unload();
    EXPECT_THAT(mapped("libovra"), IsEmpty());
}

}  // namespace
}  // namespace ovra::test
