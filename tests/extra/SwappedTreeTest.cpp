// Removes trees while another thread swaps their entries for links, files and directories, and
// moves directories out and back, as fast as it can.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <ovra/extra/RemoveTree.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/RandomSource.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using ovra::test::RandomSource;
using ovra::test::scaled;

constexpr int DEPTH = 12;  // More levels than are kept open.

class SwappedTreeTest : public TemporaryDirectoryTest {
protected:
    // Nothing in it may ever go. It has the names that there are in the tree.
    SwappedTreeTest() {
        makeDirectory(at("arena"));
        std::string path = at("bystander");
        for (int level = 0; level < 3; ++level) {
            makeDirectory(path);
            writeFile(path + "/f");
            writeFile(path + "/entry");
            path += "/d";
        }
        makeDirectory(path);
    }

    ~SwappedTreeTest() override { stop(); }

    void start() {
        thread = std::thread([this] { run(); });
    }
    void stop() {
        isOver = true;
        if (thread.joinable()) {
            thread.join();
        }
    }

    // Every step is below an open directory and follows no link: what swaps must not do itself what
    // it watches for. -1 if the way is not there.
    int openLevel(std::uint32_t number) const {
        int directory = open(at("arena").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (std::uint32_t i = 0; i <= number && directory >= 0; ++i) {
            int const next = openat(directory, i == 0 ? "t" : "d",
                                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            close(directory);
            directory = next;
        }
        return directory;
    }

    void makeTree() const {
        mkdir(at("arena/t").c_str(), 0777);
        for (std::uint32_t i = 0; i < DEPTH; ++i) {
            int const directory = openLevel(i);
            mkdirat(directory, "d", 0777);
            close(openat(directory, "f", O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
            close(directory);
        }
    }

    void run() {
        RandomSource random(ovra::test::runSeed());
        int const arena = open(at("arena").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        while (!isOver) {
            int const directory = openLevel(random.below(DEPTH - 1));
            bool const isSwapped = directory >= 0 && swap(arena, directory, random.below(6));
            swaps += isSwapped ? 1 : 0;
            close(directory);
        }
        close(arena);
    }

    bool swap(int arena, int directory, std::uint32_t way) const {
        switch (way) {
            case 0:  // A link in the place of a directory.
                return renameat(directory, "d", arena, "moved") == 0 &&
                       symlinkat(at("bystander").c_str(), directory, "d") == 0;
            case 1:  // And back.
                unlinkat(directory, "d", 0);
                return renameat(arena, "moved", directory, "d") == 0;
            case 2:
                return renameat(directory, "d", arena, "moved") == 0;
            case 3:
                unlinkat(directory, "f", 0);
                return symlinkat(at("bystander").c_str(), directory, "f") == 0;
            case 4:
                return symlinkat(at("bystander/f").c_str(), directory, "entry") == 0;
            default:
                return mkdirat(directory, "entry", 0777) == 0;
        }
    }

    void expectBystanderWhole() const {
        std::string path = at("bystander");
        for (int level = 0; level < 3; ++level) {
            EXPECT_EQ(readFile(path + "/f"), "contents") << path;
            EXPECT_EQ(readFile(path + "/entry"), "contents") << path;
            path += "/d";
        }
        EXPECT_TRUE(entryExists(path));
    }

    std::atomic<bool> isOver{false};
    std::atomic<long> swaps{0};
    std::thread thread;
};

TEST_F(SwappedTreeTest, NothingOutsideTheRootIsEverRemoved) {
    start();
    int const rounds = scaled(1000);
    int done = 0;
    for (int round = 0; round < rounds || swaps < rounds / 2; ++round) {
        makeTree();
        Outcome const outcome = removeTree(at("arena/t"));
        done += outcome == Outcome::DONE ? 1 : 0;
        // What others put into a directory again and again, or take away, and nothing else.
        EXPECT_TRUE(outcome == Outcome::DONE || outcome == Outcome::EXISTS ||
                    outcome == Outcome::MISSING)
            << outcomeName(outcome);
        expectBystanderWhole();
        if (HasFailure()) {
            ADD_FAILURE() << "in round " << round << ", " << ovra::test::seedNote();
            break;
        }
    }
    stop();
    RecordProperty("removals", rounds);
    RecordProperty("swaps", std::to_string(swaps));
    expectBystanderWhole();
    EXPECT_GT(done, 0);
    makeTree();
    EXPECT_EQ(removeTree(at("arena/t")), Outcome::DONE);
}

}  // namespace

}  // namespace ovra::extra
