// The sinks when the library is unloaded, and when the process ends. Not linked with the library.

#include <dlfcn.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Mapped.h>
#include <tests/support/ScratchDirectory.h>

namespace ovra::test {
namespace {

using ::testing::IsEmpty;

class LogUnloadTest : public BoundedTest {
protected:
    ScratchDirectory const directory;
};

auto openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

TEST_F(LogUnloadTest, LeavesNothingBehind) {
    std::size_t inUse = 0;
    auto const descriptors = openDescriptors();
    int const rounds = scaled(200);
    int const warmUp = rounds / 4;  // Until the C library's caches hold what a round releases.
    for (int round = 0; round < rounds; ++round) {
        void* const plugin = dlopen(EXTRA_LOG_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(plugin, nullptr) << dlerror();
        auto* const useSinks =
            reinterpret_cast<int (*)(char const*, int)>(dlsym(plugin, "useSinks"));
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(useSinks(directory.path("x").c_str(), ends[1]), 0);
        char text[100];
        ASSERT_EQ(std::string(text, static_cast<std::size_t>(read(ends[0], text, sizeof text))),
                  "line 3\nchild\n");
        close(ends[0]);
        close(ends[1]);
        ASSERT_EQ(directory.read("x"), "line 3\nchild\n");
        ASSERT_EQ(dlclose(plugin), 0);
        ASSERT_THAT(mapped("libovra"), IsEmpty()) << "in round " << round;
        // The handlers for a fork are removed with it.
        pid_t const child = fork();
        if (child == 0) {
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        std::filesystem::remove(directory.path("x"));
        if (round == warmUp) {
            inUse = mallinfo2().uordblks;
        }
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    if (!SANITIZED) {  // A sanitizer does not count what is in use.
        EXPECT_LT(mallinfo2().uordblks,
                  inUse + 16 * static_cast<std::size_t>(rounds - warmUp) + 4096);
    }
}

TEST_F(LogUnloadTest, EachLineBeforeTheEndIsInTheFile) {
    struct Row {
        char const* end;
        char const* lines;
        int signal;
    };
    std::string const ending = "[app:ERROR] ending\n";
    for (Row const& row : {Row{"exit", "[app:ERROR] at the very end\n", 0}, Row{"_exit", "", 0},
                           Row{"quick_exit", "", 0}, Row{"abort", "", SIGABRT}}) {
        std::string const path = directory.path(row.end);
        pid_t const child = fork();
        if (child == 0) {
            char* const arguments[] = {const_cast<char*>(EXTRA_LOG_EXIT),
                                       const_cast<char*>(row.end), const_cast<char*>(path.c_str()),
                                       nullptr};
            execv(EXTRA_LOG_EXIT, arguments);
            _exit(127);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (row.signal == 0) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << row.end << " " << status;
        } else {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == row.signal) << row.end;
        }
        EXPECT_EQ(directory.read(row.end), ending + row.lines) << row.end;
    }
}

}  // namespace
}  // namespace ovra::test
