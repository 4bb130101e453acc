// A disk that is full, and the program that rotates logs on most systems.

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <tests/support/Bounded.h>
#include <tests/support/Gate.h>

#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

class RotatingFileDiskTest : public test::BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

// --- a small disk

// Runs `work` where only it sees what it mounts, after `prepare`. 0, or 1 if it failed. -1:
// `prepare` returned false, as this user may not mount anything.
template <typename Prepare, typename Work>
int withMounts(Prepare prepare, Work work) {
    pid_t const child = fork();
    if (child == 0) {
        alarm(test::deadlineSeconds());
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !prepare()) {
            _exit(255);
        }
        work();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return !WIFEXITED(status) ? 1 : WEXITSTATUS(status) == 255 ? -1 : WEXITSTATUS(status);
}

// The same with a disk of 64 KiB at `directory`.
template <typename Work>
int withSmallDisk(std::string const& directory, Work work) {
    return withMounts([&] { return mount("none", directory.c_str(), "tmpfs", 0, "size=64k") == 0; },
                      work);
}

// Numbered lines, each whole, there or counted in a report that stands where they are missing. What
// was torn off by the full disk is the beginning of the first of those.
void expectEachLineOrReport(std::vector<std::string> const& lines, int count) {
    int next = 0;
    int reports = 0;
    for (std::size_t index = 0; index < lines.size(); ++index) {
        std::string const& line = lines[index];
        std::string const expected = "a line with the number " + std::to_string(next);
        unsigned long lost = 0;
        if (line == expected) {
            ++next;
        } else if (std::sscanf(line.c_str(), "[ovra:WARNING] %lu lines lost", &lost) == 1) {
            next += static_cast<int>(lost);
            ++reports;
        } else {
            EXPECT_EQ(expected.find(line), 0u) << line;
            ASSERT_LT(index + 1, lines.size());
            EXPECT_EQ(lines[index + 1].find("[ovra:WARNING] "), 0u) << lines[index + 1];
        }
    }
    EXPECT_EQ(next, count);
    EXPECT_EQ(reports, 3);
}

TEST_F(RotatingFileDiskTest, ReportsWhatAFullDiskCostAndGoesOn) {
    int const result = withSmallDisk(directory.path(), [this] {
        RotatingFileLogHandler sink(path, plain());
        int number = 0;
        auto const putNext = [&] {
            put(sink, "a line with the number " + std::to_string(number++));
        };
        std::string const filler = directory.path("filler");
        for (int round = 0; round < 3; ++round) {
            putNext();
            // Anything else that takes the space up.
            if (std::FILE* const file = std::fopen(filler.c_str(), "w")) {
                std::setvbuf(file, nullptr, _IONBF, 0);
                while (std::fputc('x', file) != EOF && std::ftell(file) < (40 << 10)) {
                }
                std::fclose(file);
            }
            std::uint64_t const before = sink.lostLines();
            while (sink.lostLines() < before + 10) {
                putNext();
            }
            std::filesystem::remove(filler);
            putNext();
            EXPECT_EQ(sink.lostLines(), before + 10);
        }
        expectEachLineOrReport(allLinesOf(path), number);
    });
    if (result < 0) {
        GTEST_SKIP() << "Needs to mount a disk of its own.";
    }
    EXPECT_EQ(result, 0);
}

TEST_F(RotatingFileDiskTest, NeverFillsTheDiskBeyondItsShare) {
    int const result = withSmallDisk(directory.path(), [this] {
        RotatingFileLogHandler sink(path, plain(16 << 10, 2));
        for (int line = 0; line < 20000; ++line) {
            put(sink, "a line with the number " + std::to_string(line));
        }
        EXPECT_EQ(sink.lostLines(), 0u);
        EXPECT_EQ(allLinesOf(path).back(), "a line with the number 19999");
    });
    if (result < 0) {
        GTEST_SKIP() << "Needs to mount a disk of its own.";
    }
    EXPECT_EQ(result, 0);
}

// --- a file system over another

// There an empty write waits for nobody.
TEST_F(RotatingFileDiskTest, LineThatAnotherIsWritingThroughAnOverlayIsNotTorn) {
    auto const mountOverlay = [this] {
        std::string const root = directory.path();
        if (mount("none", root.c_str(), "tmpfs", 0, nullptr) != 0) {
            return false;
        }
        for (char const* name : {"lower", "upper", "work", "merged"}) {
            std::filesystem::create_directory(directory.path(name));
        }
        std::string const options =
            "lowerdir=" + root + "/lower,upperdir=" + root + "/upper,workdir=" + root + "/work";
        return mount("none", directory.path("merged").c_str(), "overlay", 0, options.c_str()) == 0;
    };
    int const result = withMounts(mountOverlay, [this] {
        std::string const file = directory.path("merged/x");
        std::string const longLine(256 << 10, 'x');
        for (int round = 0; round < 20 && !HasFailure(); ++round) {
            std::filesystem::remove(file);
            RotatingFileLogHandler sink(file, plain());
            std::atomic<bool> isDone{false};
            std::thread other([&] {
                RotatingFileLogHandler own(file, plain());
                for (int line = 0; line < 8; ++line) {
                    put(own, longLine);
                }
                isDone = true;
            });
            do {
                sink.reopen();  // Looks at the end of the file.
                put(sink, "short");
            } while (!isDone);
            other.join();
            auto const size = std::filesystem::file_size(file);
            std::string content(static_cast<std::size_t>(size), '\0');
            std::ifstream(file).read(content.data(), static_cast<std::streamsize>(content.size()));
            ASSERT_EQ(content.find("\n\n"), std::string::npos);  // No empty line.
        }
    });
    if (result < 0) {
        GTEST_SKIP() << "Needs to mount an overlay of its own.";
    }
    EXPECT_EQ(result, 0);
}

// --- logrotate

class LogrotateTest : public RotatingFileDiskTest {
protected:
    void SetUp() override {
        if (std::system("command -v logrotate >/dev/null || test -x /usr/sbin/logrotate") != 0) {
            GTEST_SKIP() << "logrotate is not installed.";
        }
    }

    void configure(std::string const& how) {
        writeFile(directory.path("conf"), path + " {\n  rotate 9\n  su " + name("-un") + " " +
                                              name("-gn") + "\n" + how + "}\n");
        std::filesystem::permissions(directory.path("conf"), std::filesystem::perms(0600));
    }

    void rotate() const {
        std::string const command = "PATH=$PATH:/usr/sbin; logrotate --force --state " +
                                    directory.path("state") + " " + directory.path("conf");
        ASSERT_EQ(std::system(command.c_str()), 0);
    }

private:
    static std::string name(char const* option) {
        std::FILE* const pipe = popen((std::string("id ") + option).c_str(), "r");
        char text[256] = {};
        std::string result = std::fgets(text, sizeof text, pipe) != nullptr ? text : "";
        pclose(pipe);
        return result.substr(0, result.find('\n'));
    }
};

RotatingFileLogHandler* hungUp = nullptr;

TEST_F(LogrotateTest, NoLineIsLostWhenItMovesTheFileAndAsksToOpenItAgain) {
    configure("  create 0640\n  postrotate\n    kill -HUP " + std::to_string(getpid()) +
              "\n  endscript\n");
    RotatingFileLogHandler sink(path, plain());
    hungUp = &sink;
    struct sigaction action = {};
    action.sa_handler = [](int) { hungUp->requestReopen(); };
    action.sa_flags = SA_RESTART;
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGHUP, &action, &before), 0);
    std::atomic<bool> isDone{false};
    int lines = 0;
    put(sink, "line " + std::to_string(lines++));
    std::thread writer([&] {
        do {
            put(sink, "line " + std::to_string(lines++));
        } while (!isDone);
    });
    for (int rotation = 0; rotation < 4; ++rotation) {
        // Who reads a file that grows this fast may never come to its end.
        std::uintmax_t const seen = std::filesystem::file_size(path);
        test::yieldUntil([&] { return std::filesystem::file_size(path) != seen; });
        rotate();
    }
    isDone = true;
    writer.join();
    put(sink, "line " + std::to_string(lines++));
    sigaction(SIGHUP, &before, nullptr);
    std::vector<std::string> const all = allLinesOf(path);
    ASSERT_EQ(all.size(), static_cast<std::size_t>(lines));
    for (int line = 0; line < lines; ++line) {
        ASSERT_EQ(all[static_cast<std::size_t>(line)], "line " + std::to_string(line));
    }
    EXPECT_EQ(filesOf(path).size(), 5u);
    EXPECT_NE(contentOf(path), "");
}

TEST_F(LogrotateTest, NothingIsLeftBlankWhenItCopiesAndEmptiesTheFile) {
    configure("  copytruncate\n");
    for (std::uint64_t const maxBytes : {0u, 1u << 20}) {
        for (std::string const& file : filesOf(path)) {
            std::filesystem::remove(file);
        }
        RotatingFileLogHandler sink(path, plain(maxBytes));
        int lines = 0;
        for (int rotation = 0; rotation < 4; ++rotation) {
            for (int line = 0; line < 100; ++line) {
                put(sink, "line " + std::to_string(lines++));
            }
            rotate();
            EXPECT_EQ(contentOf(path), "");
        }
        put(sink, "line " + std::to_string(lines));
        EXPECT_EQ(contentOf(path), "line " + std::to_string(lines) + "\n");
        std::vector<std::string> const all = allLinesOf(path);
        ASSERT_EQ(all.size(), 401u);
        for (int line = 0; line <= lines; ++line) {
            ASSERT_EQ(all[static_cast<std::size_t>(line)], "line " + std::to_string(line));
        }
    }
}

}  // namespace
}  // namespace ovra::extra
