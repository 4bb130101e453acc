// What the headers of the sinks warn of.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <thread>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>

namespace ovra::log {

namespace {

using ovra::test::Registration;
using ovra::test::ScratchDirectory;

// A device that is full until `isFull` is false.
class FullDevice : public std::streambuf {
public:
    explicit FullDevice(std::ostream& stream) : captured(stream), original(stream.rdbuf(this)) {}
    FullDevice(FullDevice const&) = delete;
    FullDevice& operator=(FullDevice const&) = delete;
    ~FullDevice() override { captured.rdbuf(original); }

    bool isFull = true;
    std::string text;

protected:
    std::streamsize xsputn(char const* characters, std::streamsize count) override {
        if (isFull) {
            return 0;
        }
        text.append(characters, static_cast<std::size_t>(count));
        return count;
    }
    int_type overflow(int_type character) override {
        if (isFull) {
            return traits_type::eof();
        }
        text.push_back(traits_type::to_char_type(character));
        return character;
    }

private:
    std::ostream& captured;
    std::streambuf* const original;
};

class LogHazardsTest : public ovra::test::BoundedTest {
protected:
    void SetUp() override { ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0); }

    // Opens the end of the pipe that is read from.
    int openReader() const { return open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

    static std::string readFrom(int reader) {
        char buffer[4096];
        ssize_t const size = read(reader, buffer, sizeof buffer);
        return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : std::string();
    }

    ScratchDirectory const directory;
    std::string const pipe = directory.path("pipe");
};

TEST_F(LogHazardsTest, FailedWriteSilencesTheStreamUntilTheApplicationClearsIt) {
    StandardStreamLogHandler handler;
    FullDevice device(std::cout);
    handler.handleLogMessage("lost", INFO);
    device.isFull = false;
    handler.handleLogMessage("lost too", INFO);
    std::cout << "and the application's own" << std::endl;
    EXPECT_TRUE(std::cout.bad());
    EXPECT_EQ(device.text, "");

    std::cout.clear();
    handler.handleLogMessage("next", INFO);
    EXPECT_EQ(device.text, "next\n");
}

TEST_F(LogHazardsTest, DescriptorOfTheFileSinkPassesToProgramsThatAreExecuted) {
    int const next = dup(STDERR_FILENO);
    close(next);
    FileLogHandler const handler(directory.path("file").c_str());
    int const flags = fcntl(next, F_GETFD);
    ASSERT_GE(flags, 0) << "not the descriptor of the file";
    EXPECT_EQ(flags & FD_CLOEXEC, 0);
}

TEST_F(LogHazardsTest, FileSinkOnAPipeWhoseReaderHasClosedRaisesASignal) {
    int const reader = openReader();
    FileLogHandler handler(pipe.c_str());
    close(reader);
    pid_t const child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        handler.handleLogMessage("lost", ERROR);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
}

TEST_F(LogHazardsTest, InterruptedOpeningOfAPipeMakesASinkThatDiscards) {
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &previous);
    std::unique_ptr<FileLogHandler> handler;
    std::atomic<bool> isMade{false};
    std::thread maker([&] {
        handler = std::make_unique<FileLogHandler>(pipe.c_str());
        isMade = true;
    });
    while (!isMade) {  // Which signal finds it opening, nobody knows.
        pthread_kill(maker.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    maker.join();
    sigaction(SIGUSR1, &previous, nullptr);

    int const reader = openReader();
    handler->handleLogMessage("lost", ERROR);
    EXPECT_EQ(readFrom(reader), "");
    close(reader);
}

TEST_F(LogHazardsTest, ThreadThatIsCancelledWhileItWritesSilencesItsSink) {
    int const reader = openReader();
    auto handler = std::make_unique<FileLogHandler>(pipe.c_str());
    handler->handleLogMessage("before", ERROR);
    EXPECT_EQ(readFrom(reader), "before\n");

    pthread_t thread;
    auto const cancelledInside = [](void* sink) -> void* {
        pthread_cancel(pthread_self());
        static_cast<FileLogHandler*>(sink)->handleLogMessage("lost", ERROR);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, cancelledInside, handler.get()), 0);
    void* value = nullptr;
    ASSERT_EQ(pthread_join(thread, &value), 0);
    EXPECT_EQ(value, PTHREAD_CANCELED);

    handler->handleLogMessage("lost too", ERROR);
    EXPECT_EQ(readFrom(reader), "");
    handler.reset();  // It may still write what it holds.
    close(reader);
}

}  // namespace

}  // namespace ovra::log
