#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/LogTestSupport.h>

namespace ovra::log {

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

using namespace ovra::test;
using namespace test;

std::string failureOf(std::string const& what) {
    return what + ": " + strerror(errno);
}

bool writeTo(char const* path, std::string const& content) {
    std::ofstream file(path);
    return (file << content << std::flush).good();
}

// Gives this process a /dev of its own. What was wrong, or an empty string.
std::string makePrivateDev() {
    if (geteuid() == 0) {
        if (unshare(CLONE_NEWNS) != 0) {
            return failureOf("no private mount namespace");
        }
    } else {
        std::string const user = std::to_string(geteuid());
        std::string const group = std::to_string(getegid());
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return failureOf("no private user and mount namespace");
        }
        if (!writeTo("/proc/self/uid_map", "0 " + user + " 1") ||
            !writeTo("/proc/self/setgroups", "deny") ||
            !writeTo("/proc/self/gid_map", "0 " + group + " 1")) {
            return failureOf("no user of one's own in the private namespace");
        }
    }
    // Before anything else: nothing mounted here may reach the machine.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failureOf("the mounts stay shared");
    }
    if (mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
        return failureOf("nothing can be mounted on /dev");
    }
    return {};
}

// With the C library's own functions and a system log that belongs to the test alone.
class SystemLogTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { obstacle = makePrivateDev(); }

    void SetUp() override {
        if (!obstacle.empty()) {
            GTEST_SKIP() << "this machine forbids a system log of one's own: " << obstacle;
        }
        systemLog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(systemLog, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        ASSERT_EQ(bind(systemLog, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
        timeval const deadline = {static_cast<time_t>(ovra::test::deadlineSeconds()), 0};
        ASSERT_EQ(setsockopt(systemLog, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline), 0);
    }

    void TearDown() override {
        if (systemLog >= 0) {
            closelog();  // The C library connects again, to the next test's.
            close(systemLog);
            unlink("/dev/log");
        }
    }

    std::string receive() const {
        char buffer[4096];
        ssize_t const size = recv(systemLog, buffer, sizeof buffer, 0);
        return size >= 0 ? std::string(buffer, static_cast<std::size_t>(size))
                         : failureOf("nothing received");
    }

    bool isEmpty() const {
        char buffer[1];
        return recv(systemLog, buffer, sizeof buffer, MSG_DONTWAIT | MSG_PEEK) < 0 &&
               errno == EAGAIN;
    }

private:
    static std::string obstacle;
    int systemLog = -1;
};

std::string SystemLogTest::obstacle;

// As sent by an application that has set up nothing.
std::string datagram(int facilityAndPriority, std::string const& textPattern) {
    return "<" + std::to_string(facilityAndPriority) +
           ">[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] " +
           program_invocation_short_name + ": " + textPattern;
}

TEST_F(SystemLogTest, LineArrivesWithPriorityAndTheHostsDefaults) {
    log(ERROR, "tag", "number %d", 1);
    EXPECT_THAT(receive(), MatchesRegex(datagram(LOG_USER | LOG_ERR, "\\[tag:ERROR\\] number 1")));
    EXPECT_TRUE(isEmpty());
}

TEST_F(SystemLogTest, PriorityFollowsFromTheLevel) {
    LevelKeeper const levelKeeper(levelOf(7));
    int const expected[] = {14, 10, 11, 14, 14, 15, 14, 14};
    for (int level = 0; level <= 7; ++level) {
        log(levelOf(level), "tag", "text");
        std::string const name = logLevelToName(levelOf(level));
        ASSERT_THAT(receive(),
                    MatchesRegex(datagram(expected[level], "\\[tag:" + name + "\\] text")))
            << "level " << level;
    }
    EXPECT_TRUE(isEmpty());
}

TEST_F(SystemLogTest, PercentSignsLeftInTheLineAreInterpreted) {
    log(ERROR, "tag", "100%%%% of %s", "50%%");
    EXPECT_THAT(receive(), EndsWith(": [tag:ERROR] 100% of 50%"));
    errno = ENOTDIR;
    log(ERROR, "tag", "%%m");
    EXPECT_THAT(receive(), AllOf(HasSubstr(": [tag:ERROR] "), Not(EndsWith("%m"))));
}

// Text that nobody could double the percent signs of: the application did not write it.
TEST_F(SystemLogTest, TextOfAnExceptionOutOfATaskArrivesAsItIs) {
    LevelKeeper const levelKeeper(WARNING);
    char const path[] = "/nowhere/100%s%s%s%s%s%n full";
    std::string what;
    auto const work = [&] {
        try {
            static_cast<void>(std::filesystem::file_size(path));
        } catch (std::exception const& e) {
            what = e.what();
            throw;
        }
        return concurrent::Executable::SUCCESS;
    };
    concurrent::getHighestPriorityTaskExecutor()
        ->submitTask(work, concurrent::NORMAL, nullptr, "size of %s%n%m")
        ->waitForCompletion();
    EXPECT_THAT(what, HasSubstr(path));
    EXPECT_THAT(receive(), EndsWith(": [SubmittedTask::execute():WARNING] Caught exception during "
                                    "running of 'size of %s%n%m'. (" +
                                    what + ")"));
}

TEST_F(SystemLogTest, NameOfATaskArrivesAsItIs) {
    LevelKeeper const levelKeeper(INFO);
    concurrent::SubmittedTask task([] { return concurrent::Executable::SUCCESS; },
                                   concurrent::NORMAL, nullptr, "%s%s%s%s%n%%%m%");
    task.execute();
    for (char const* state : {"EXECUTING", "DONE"}) {
        EXPECT_THAT(receive(), EndsWith(": [SubmittedTask::execute():INFO] Moving current task "
                                        "'%s%s%s%s%n%%%m%' into " +
                                        std::string(state) + " state."));
    }
    EXPECT_TRUE(isEmpty());
}

TEST_F(SystemLogTest, FilteredLineDoesNotArrive) {
    log(WARNING, "tag", "filtered");
    EXPECT_TRUE(isEmpty());
    log(ERROR, "tag", "delivered");
    EXPECT_THAT(receive(), EndsWith(": [tag:ERROR] delivered"));
}

TEST_F(SystemLogTest, RegisteredPlatformSinkSendsEachLineAgain) {
    Registration const registration(PLATFORM_HANDLER);
    log(ERROR, "tag", "text");
    EXPECT_THAT(receive(), EndsWith(": [tag:ERROR] text"));
    EXPECT_THAT(receive(), EndsWith(": [tag:ERROR] text"));
    EXPECT_TRUE(isEmpty());
}

TEST_F(SystemLogTest, IdentityAndFacilityAreTheApplications) {
    // In a process of its own: the C library keeps a facility for good.
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        openlog("app", LOG_PID, LOG_LOCAL3);
        log(ERROR, "tag", "one");
        log(CRITICAL, "tag", "two");
        _exit(0);
    }
    std::string const identity = " app\\[" + std::to_string(child) + "\\]: ";
    EXPECT_THAT(receive(), MatchesRegex("<" + std::to_string(LOG_LOCAL3 | LOG_ERR) + ">[^[]+" +
                                        identity + "\\[tag:ERROR\\] one"));
    EXPECT_THAT(receive(), MatchesRegex("<" + std::to_string(LOG_LOCAL3 | LOG_CRIT) + ">[^[]+" +
                                        identity + "\\[tag:CRITICAL\\] two"));
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(SystemLogTest, ThreadsSendWholeLines) {
    std::string const filling(500, 'x');
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int number = 0; number < 50; ++number) {
                log(ERROR, "tag", "%s", filling.c_str());
            }
        });
    }
    for (int received = 0; received < 4 * 50; ++received) {
        EXPECT_THAT(receive(),
                    MatchesRegex(datagram(LOG_USER | LOG_ERR, "\\[tag:ERROR\\] " + filling)));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(isEmpty());
}

TEST_F(SystemLogTest, OtherSinksDoNotMissWhatTheSystemLogCannotTake) {
    auto const sink = std::make_shared<RecordingSink>();
    Registration const registration(sink);
    ASSERT_EQ(unlink("/dev/log"), 0);
    errno = ENOTDIR;
    log(ERROR, "tag", "text");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_THAT(sink->texts(), ElementsAre("[tag:ERROR] text"));
    EXPECT_TRUE(isEmpty());
}

}  // namespace

}  // namespace ovra::log
