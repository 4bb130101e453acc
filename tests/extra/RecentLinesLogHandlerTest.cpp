#include <ovra/extra/RecentLinesLogHandler.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <new>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

#include <tests/extra/FileCalls.h>

namespace ovra::extra {
namespace {

using log::test::linesOf;
using test::FileCall;
using test::FileCalls;
using test::Gate;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RecentLinesLogHandlerTest : public test::BoundedTest {};

void keep(RecentLinesLogHandler& sink, std::string const& line) {
    sink.handleLogMessage(line.c_str(), log::INFO);
}

std::string dumpOf(RecentLinesLogHandler const& sink) {
    std::FILE* const file = std::tmpfile();
    EXPECT_TRUE(sink.writeTo(fileno(file)));
    std::string text;
    std::rewind(file);
    for (int character = std::fgetc(file); character != EOF; character = std::fgetc(file)) {
        text += static_cast<char>(character);
    }
    std::fclose(file);
    return text;
}

TEST_F(RecentLinesLogHandlerTest, WritesTheLastLinesOldestFirst) {
    RecentLinesLogHandler sink(3);
    EXPECT_EQ(dumpOf(sink), "");
    keep(sink, "1");
    EXPECT_EQ(dumpOf(sink), "1\n");
    keep(sink, "2");
    keep(sink, "");
    EXPECT_EQ(dumpOf(sink), "1\n2\n\n");
    keep(sink, "4");
    EXPECT_EQ(dumpOf(sink), "2\n\n4\n");
    EXPECT_EQ(dumpOf(sink), "2\n\n4\n");
    for (int line = 5; line <= 100; ++line) {
        keep(sink, std::to_string(line));
    }
    EXPECT_EQ(dumpOf(sink), "98\n99\n100\n");
}

TEST_F(RecentLinesLogHandlerTest, CutsLongLines) {
    struct Row {
        std::size_t bytesEach;
        char const* line;
        char const* kept;
    };
    for (Row const& row : {Row{4, "123", "123\n"}, Row{4, "1234", "1234\n"},
                           Row{4, "12345", "1234\n"}, Row{0, "12345", "\n"}, Row{1, "12", "1\n"}}) {
        RecentLinesLogHandler sink(2, row.bytesEach);
        keep(sink, row.line);
        EXPECT_EQ(dumpOf(sink), row.kept);
    }
    RecentLinesLogHandler sink(2);
    keep(sink, std::string(1000, 'x'));
    EXPECT_EQ(dumpOf(sink), std::string(160, 'x') + "\n");
}

TEST_F(RecentLinesLogHandlerTest, KeepsNothingOfNullLinesAndInNoPlace) {
    RecentLinesLogHandler none(0);
    keep(none, "a line");
    none.handleLogMessage(nullptr, log::INFO);
    EXPECT_EQ(dumpOf(none), "");
    RecentLinesLogHandler sink(2);
    keep(sink, "a line");
    sink.handleLogMessage(nullptr, log::INFO);
    EXPECT_EQ(dumpOf(sink), "a line\n");
}

TEST_F(RecentLinesLogHandlerTest, TakesAllMemoryWhenItIsMade) {
    if (!test::countsAllocations()) {
        GTEST_SKIP() << "The heap is not the test's own.";
    }
    RecentLinesLogHandler sink(100);
    long const before = test::allocations();
    for (int line = 0; line < 1000; ++line) {
        sink.handleLogMessage("a line", log::INFO);
    }
    int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(sink.writeTo(null));
    EXPECT_EQ(test::allocations(), before);
    close(null);
}

TEST_F(RecentLinesLogHandlerTest, ThrowsWhereThereIsNotSoMuchMemory) {
    constexpr std::size_t MOST = std::numeric_limits<std::size_t>::max();
    EXPECT_THROW(RecentLinesLogHandler(MOST, 160), std::bad_alloc);
    if (!test::SANITIZED) {  // A sanitizer takes such a wish for a mistake.
        EXPECT_THROW(RecentLinesLogHandler(MOST / 2, 1), std::bad_alloc);
    }
    EXPECT_THROW(RecentLinesLogHandler(1, MOST), std::bad_alloc);
    EXPECT_THROW(RecentLinesLogHandler(2, MOST / 2), std::bad_alloc);
}

TEST_F(RecentLinesLogHandlerTest, SaysWhenItCannotBeWrittenAndKeepsErrno) {
    RecentLinesLogHandler sink(2);
    keep(sink, "first");
    keep(sink, "second");
    errno = EXDEV;
    EXPECT_FALSE(sink.writeTo(-1));
    EXPECT_EQ(errno, EXDEV);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        FileCalls calls;
        int writes = 0;
        calls.onCall = [&](FileCall) { return ++writes == 2 ? EINTR : 0; };
        calls.onWrite = [](std::size_t count) { return (count + 1) / 2; };
        EXPECT_TRUE(sink.writeTo(ends[1]));
    }
    char text[100];
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(read(ends[0], text, sizeof text))),
              "first\nsecond\n");
    for (int const failing : {1, 2}) {
        FileCalls calls;
        int writes = 0;
        calls.onCall = [&](FileCall) { return ++writes == failing ? EIO : 0; };
        EXPECT_FALSE(sink.writeTo(ends[1]));
        EXPECT_EQ(writes, failing);
    }
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(dumpOf(sink), "first\nsecond\n");
}

// --- while it is being written out

TEST_F(RecentLinesLogHandlerTest, LeavesOutWhatIsOverwrittenBeforeItsTurn) {
    RecentLinesLogHandler sink(4);
    for (char const* line : {"1", "2", "3", "4"}) {
        keep(sink, line);
    }
    std::string written;
    FileCalls calls;
    calls.onCall = [&](FileCall) {
        if (calls.made.size() == 1) {  // "1" is on its way out.
            keep(sink, "5");           // Its place is taken, so this overwrites "2".
            keep(sink, "6");
        }
        return 0;
    };
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_TRUE(sink.writeTo(ends[1]));
    char text[100];
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(read(ends[0], text, sizeof text))),
              "1\n4\n");
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(dumpOf(sink), "4\n5\n6\n");
    keep(sink, "7");
    keep(sink, "8");
    EXPECT_EQ(dumpOf(sink), "5\n6\n7\n8\n");
}

TEST_F(RecentLinesLogHandlerTest, DropsNewLinesOnlyWhileEveryPlaceIsBeingWrittenOut) {
    RecentLinesLogHandler sink(1);
    keep(sink, "1");
    FileCalls calls;
    calls.onCall = [&](FileCall) {
        keep(sink, "2");
        return 0;
    };
    int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(sink.writeTo(null));
    close(null);
    calls.onCall = nullptr;
    EXPECT_EQ(dumpOf(sink), "");  // "2" was dropped, and "1" is no longer among the last.
    keep(sink, "3");
    EXPECT_EQ(dumpOf(sink), "3\n");
}

TEST_F(RecentLinesLogHandlerTest, TwoCanWriteItOutAtOnce) {
    RecentLinesLogHandler sink(3);
    for (char const* line : {"1", "2", "3"}) {
        keep(sink, line);
    }
    std::string inner;
    FileCalls calls;
    calls.onCall = [&](FileCall) {
        inner = dumpOf(sink);
        return 0;
    };
    int const null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(sink.writeTo(null));
    close(null);
    EXPECT_EQ(inner, "1\n2\n3\n");
    for (char const* line : {"4", "5", "6"}) {
        keep(sink, line);
    }
    calls.onCall = nullptr;
    EXPECT_EQ(dumpOf(sink), "4\n5\n6\n");
}

// Threads that write the first line of `sink` out, until they may go on.
class WritingOut {
public:
    WritingOut(RecentLinesLogHandler const& sink, int count) : areInside(count) {
        for (int thread = 0; thread < count; ++thread) {
            threads.emplace_back([&] {
                FileCalls calls;
                calls.onCall = [&](FileCall) {
                    areInside.open();
                    mayGoOn.wait();
                    return EIO;
                };
                EXPECT_FALSE(sink.writeTo(-1));
            });
        }
        areInside.wait();
    }
    WritingOut(WritingOut const&) = delete;
    WritingOut& operator=(WritingOut const&) = delete;
    ~WritingOut() {
        mayGoOn.open();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

private:
    Gate areInside;
    Gate mayGoOn;
    std::vector<std::thread> threads;
};

TEST_F(RecentLinesLogHandlerTest, LeavesOutALineThatFifteenOthersAreWritingOut) {
    for (int const others : {14, 15}) {
        RecentLinesLogHandler sink(2);
        keep(sink, "1");
        keep(sink, "2");
        {
            WritingOut const writing(sink, others);
            EXPECT_EQ(dumpOf(sink), others == 15 ? "2\n" : "1\n2\n");
        }
        EXPECT_EQ(dumpOf(sink), "1\n2\n");
    }
}

TEST_F(RecentLinesLogHandlerTest, AForkedChildNeverUsesThePlaceOfALineThatIsBeingWrittenOut) {
    RecentLinesLogHandler sink(3);
    for (char const* line : {"1", "2", "3"}) {
        keep(sink, line);
    }
    WritingOut const writing(sink, 1);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        for (int round = 0; round < 2; ++round) {
            for (char const* line : {"4", "5", "6"}) {
                sink.handleLogMessage(line, log::INFO);
            }
            sink.writeTo(ends[1]);
        }
        _exit(0);
    }
    close(ends[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    char text[100];
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(read(ends[0], text, sizeof text))),
              "5\n6\n5\n6\n");
    close(ends[0]);
}

// --- while a line is being kept

// A line in three pages of memory, of which the second and the third can be withheld: its copy then
// stops at an exact place, and goes on when the handler of the signal returns.
struct StoppedLine {
    explicit StoppedLine(RecentLinesLogHandler& keptIn)
        : sink(keptIn),
          size(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          pages(static_cast<char*>(mmap(nullptr, 3 * size, PROT_READ | PROT_WRITE,
                                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        std::fill(pages, pages + 3 * size - 1, 'b');
        withhold(1, true);
        withhold(2, true);
    }
    StoppedLine(StoppedLine const&) = delete;
    StoppedLine& operator=(StoppedLine const&) = delete;
    ~StoppedLine() { munmap(pages, 3 * size); }

    void withhold(std::size_t page, bool isWithheld) const {
        mprotect(pages + page * size, size, isWithheld ? PROT_NONE : PROT_READ | PROT_WRITE);
    }
    void onFault() {
        switch (++faults) {
            case 1:  // The place is taken, and the length being found out.
                for (char const* line : {"1", "2", "3"}) {
                    sink.handleLogMessage(line, log::INFO);
                }
                withhold(1, false);
                break;
            case 2:
                withhold(2, false);
                withhold(1, true);
                break;
            case 3:  // The first page is copied.
                isWritten = sink.writeTo(end);
                withhold(1, false);
                break;
            default:
                std::abort();
        }
    }

    RecentLinesLogHandler& sink;
    std::size_t const size;
    char* const pages;
    int end = -1;
    int faults = 0;
    bool isWritten = false;
};

StoppedLine* stopped = nullptr;

TEST_F(RecentLinesLogHandlerTest, ShowsNothingOfALineThatIsBeingKept) {
    if (test::SANITIZED) {
        GTEST_SKIP() << "The sanitizer has its own handler of the signal.";
    }
    for (std::size_t const places : {1u, 2u, 3u, 4u}) {
        RecentLinesLogHandler sink(places, 1 << 16);
        StoppedLine line(sink);
        stopped = &line;
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        line.end = ends[1];
        struct sigaction action = {};
        action.sa_handler = [](int) { stopped->onFault(); };
        struct sigaction before = {};
        sigaction(SIGSEGV, &action, &before);
        sink.handleLogMessage(line.pages, log::INFO);
        sigaction(SIGSEGV, &before, nullptr);
        close(ends[1]);
        char text[100];
        std::string const dump(text, static_cast<std::size_t>(read(ends[0], text, sizeof text)));
        close(ends[0]);
        EXPECT_EQ(line.faults, 3);
        EXPECT_TRUE(line.isWritten);
        // One place is never free, and the place after it has to do for the next line too.
        char const* const expected[] = {"", "3\n", "2\n3\n", "1\n2\n3\n"};
        EXPECT_EQ(dump, expected[places - 1]) << places;
    }
}

// --- several threads

// "thread T line N xxxx...": each whole, and the numbers of each thread rising.
void expectWholeAndOrdered(std::string const& dump) {
    std::map<int, long> last;
    for (std::string const& line : linesOf(dump)) {
        int thread = 0;
        long number = 0;
        int end = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %ld %n", &thread, &number, &end), 2)
            << line;
        char const expected = static_cast<char>('a' + number % 26);
        std::size_t const length = static_cast<std::size_t>(number % 50);
        ASSERT_EQ(line.substr(static_cast<std::size_t>(end)), std::string(length, expected));
        auto const [entry, isNew] = last.emplace(thread, number);
        ASSERT_TRUE(isNew || entry->second < number) << line;
        entry->second = number;
    }
}

std::string numberedLine(int thread, long number) {
    return "thread " + std::to_string(thread) + " line " + std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(number % 50), static_cast<char>('a' + number % 26));
}

TEST_F(RecentLinesLogHandlerTest, ShowsNoLineMixedWhileFourThreadsLog) {
    for (std::size_t const places : {1u, 2u, 5u, 64u}) {
        RecentLinesLogHandler sink(places, 100);
        std::atomic<bool> isDone{false};
        Gate areLogging(4);
        std::vector<std::thread> loggers;
        for (int thread = 0; thread < 4; ++thread) {
            loggers.emplace_back([&, thread] {
                long number = 0;
                do {
                    keep(sink, numberedLine(thread, number++));
                    areLogging.open();
                } while (!isDone);
            });
        }
        areLogging.wait();
        for (int round = 0; round < test::scaled(500); ++round) {
            expectWholeAndOrdered(dumpOf(sink));
        }
        isDone = true;
        for (std::thread& logger : loggers) {
            logger.join();
        }
        for (std::size_t line = 0; line < places; ++line) {
            keep(sink, numberedLine(4, static_cast<long>(line)));
        }
        std::string const last = dumpOf(sink);
        expectWholeAndOrdered(last);
        EXPECT_EQ(linesOf(last).size(), places);
    }
}

TEST_F(RecentLinesLogHandlerTest, AForkedChildKeepsLinesWhileOtherThreadsDo) {
    RecentLinesLogHandler sink(2, 100);
    std::atomic<bool> isDone{false};
    Gate isLogging;
    std::thread logger([&] {
        std::string const line = numberedLine(0, 0);
        isLogging.open();
        while (!isDone) {
            sink.handleLogMessage(line.c_str(), log::INFO);
        }
    });
    isLogging.wait();
    for (int round = 0; round < test::scaled(200); ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        pid_t const child = fork();
        if (child == 0) {
            alarm(test::deadlineSeconds());
            sink.handleLogMessage("first", log::INFO);
            sink.handleLogMessage("second", log::INFO);
            _exit(sink.writeTo(ends[1]) ? 0 : 1);
        }
        close(ends[1]);
        char text[1000];
        auto const length = read(ends[0], text, sizeof text);
        std::string dump;
        dump.assign(text, static_cast<std::size_t>(length > 0 ? length : 0));
        for (ssize_t more; (more = read(ends[0], text, sizeof text)) > 0;) {
            dump.append(text, static_cast<std::size_t>(more));
        }
        close(ends[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        ASSERT_EQ(dump, "first\nsecond\n");
    }
    isDone = true;
    logger.join();
}

}  // namespace
}  // namespace ovra::extra
