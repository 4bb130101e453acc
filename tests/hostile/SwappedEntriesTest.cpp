#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <istream>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <ovra/fs/FileHandle.h>
#include <tests/fs/TemporaryDirectory.h>
#include <tests/support/RandomSource.h>

namespace ovra::fs {

namespace {

using namespace ovra::fs::test;
using ovra::test::RandomSource;
using ovra::test::scaled;

// In memory, if nothing else is asked for: the faster the swaps, the better.
[[maybe_unused]] int const inMemory =
    access("/dev/shm", W_OK | X_OK) == 0 ? setenv("TMPDIR", "/dev/shm", 0) : 0;

/// While it lives, a thread that turns the entry into a file, a directory, a link or nothing, as
/// fast as it can.
class Swapper {
public:
    Swapper(std::string const& entryPath, std::string const& fileTarget,
            std::string const& directoryTarget)
        : entry(entryPath), linkToFile(fileTarget), linkToDirectory(directoryTarget) {
        thread = std::thread([this] { run(); });
    }
    Swapper(Swapper const&) = delete;
    Swapper& operator=(Swapper const&) = delete;
    ~Swapper() { stop(); }

    void stop() {
        isOver = true;
        if (thread.joinable()) {
            thread.join();
        }
    }
    long swaps() const { return swapCount; }

private:
    void run() {
        RandomSource random(ovra::test::runSeed());
        while (!isOver) {
            remove();
            switch (random.below(linkToDirectory.empty() ? 5 : 6)) {
                case 0:
                    break;
                case 1:
                    makeFile(entry);
                    break;
                case 2:
                    if (mkdir(entry.c_str(), 0777) == 0) {
                        makeFile(entry + "/inside");
                    }
                    break;
                case 3:
                    ignore(symlink(linkToFile.c_str(), entry.c_str()));
                    break;
                case 4:
                    ignore(symlink("nowhere", entry.c_str()));
                    break;
                default:
                    ignore(symlink(linkToDirectory.c_str(), entry.c_str()));
            }
            ++swapCount;
        }
        remove();
    }

    // By the entry itself, never through a link.
    void remove() {
        if (unlink(entry.c_str()) == 0 || rmdir(entry.c_str()) == 0) {
            return;
        }
        int const directory = open(entry.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (directory >= 0) {
            for (char const* name : {"inside", "source", "copy", "new"}) {
                ignore(unlinkat(directory, name, 0));
                ignore(unlinkat(directory, name, AT_REMOVEDIR));
            }
            close(directory);
            ignore(rmdir(entry.c_str()));
        }
    }

    static void makeFile(std::string const& path) {
        int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (file >= 0) {
            ignore(write(file, "bytes", 5));
            close(file);
        }
    }

    // Whoever works on the entry may have been faster.
    template <typename Result>
    static void ignore(Result) {}

    std::string const entry;
    std::string const linkToFile;
    std::string const linkToDirectory;
    std::atomic<bool> isOver{false};
    std::atomic<long> swapCount{0};
    std::thread thread;
};

class SwappedEntriesTest : public TemporaryDirectoryTest {
protected:
    SwappedEntriesTest() {
        makeDirectory(at("arena"));
        writeFile(at("source"), "source");
        // What the links of the swapper may lead into and may lose all.
        makeDirectory(at("bait"));
        writeFile(at("bait/file"), "bait");
        // What nobody is asked to touch.
        makeDirectory(at("bystander"));
        makeDirectory(at("bystander/within"));
        writeFile(at("bystander/file"), "kept");
        writeFile(at("bystander/within/file"), "kept as well");
    }

    void expectBystanderWhole() {
        std::vector<std::string> names = namesIn(at("bystander"));
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, (std::vector<std::string>{"file", "within"}));
        EXPECT_EQ(namesIn(at("bystander/within")), std::vector<std::string>{"file"});
        EXPECT_EQ(readFile(at("bystander/file")), "kept");
        EXPECT_EQ(readFile(at("bystander/within/file")), "kept as well");
    }

    /// Calls the operations in turn, `rounds` times in all, and on until the entry was swapped at
    /// least half as often.
    void inTurn(int rounds, Swapper const& swapper,
                std::vector<std::function<void()>> const& operations) {
        long const swapsBefore = swapper.swaps();
        for (int round = 0; round < rounds || swapper.swaps() - swapsBefore < rounds / 2; ++round) {
            operations[static_cast<std::size_t>(round) % operations.size()]();
            if (HasFailure()) {
                ADD_FAILURE() << "in round " << round << ", " << ovra::test::seedNote();
                return;
            }
        }
    }
};

// How much can be read; a directory can be opened, but not read.
std::streamsize lengthOf(std::istream& stream) {
    char bytes[64];
    stream.read(bytes, sizeof bytes);
    return stream.gcount();
}

TEST_F(SwappedEntriesTest, EveryOperationGivesOneOfItsResultsAndSparesBystanders) {
    std::string const entry = at("arena/entry");
    std::set<std::string> const names = {"entry", "moved", "new", "nowhere"};
    Swapper swapper(entry, at("bait/file"), at("bait"));
    FileHandle handle(entry);
    FileHandle arena(at("arena"));
    FileHandle source(at("source"));
    FileHandle moved(at("arena/moved"));

    inTurn(scaled(70000), swapper,
           {[&] { handle.Exists(); },
            [&] { handle.IsFile(); },
            [&] { handle.IsSymbolicLink(); },
            [&] {
                std::int64_t const size = handle.Size();
                EXPECT_TRUE(size >= 0 && size <= 6) << size;
            },
            [&] { EXPECT_LE(handle.Permissions(), 0777u); },
            [&] { EXPECT_GE(handle.ModificationTime(), 0); },
            [&] {
                for (std::string const& name : arena.ListDirectory()) {
                    EXPECT_EQ(names.count(name), 1u) << name;
                }
            },
            [&] {
                for (std::string const& name : handle.ListDirectory()) {
                    EXPECT_TRUE(name == "inside" || name == "file" || name == "source" ||
                                name == "entry" || name == "moved")
                        << name;
                }
            },
            [&] {
                FileIterator const end = arena.End();
                int entries = 0;
                for (FileIterator it = arena.Begin(); it != end && entries < 100; ++it) {
                    FileHandle child((*it).Path());
                    child.IsDirectory();
                    ++entries;
                }
                EXPECT_LT(entries, 100);
            },
            [&] {
                auto const stream = handle.CreateInputStream(std::ios_base::binary);
                ASSERT_NE(stream, nullptr);
                EXPECT_LE(lengthOf(*stream), 6);
            },
            [&] {
                auto const stream = handle.CreateOutputStream(std::ios_base::app);
                ASSERT_NE(stream, nullptr);
            },
            [&] { source.Copy(handle); },
            [&] {
                FileHandle copy(at("copy"));
                if (handle.Copy(copy)) {
                    EXPECT_TRUE(copy.IsFile());
                }
            },
            [&] {
                if (handle.Move(moved)) {
                    moved.RemoveDirectoryRecursive();
                    moved.RemoveDirectory();
                }
                unlink(at("arena/moved").c_str());  // What hangs in the air has no other end.
            },
            [&] {
                FileHandle renamed(entry);
                if (renamed.Rename("new")) {
                    EXPECT_EQ(renamed.Path().Path(), at("arena//new"));
                    renamed.RemoveDirectoryRecursive();
                    renamed.Remove();
                } else {
                    EXPECT_EQ(renamed.Path().Path(), entry);
                }
                unlink(at("arena/new").c_str());
            },
            [&] { handle.CreateDirectory(); },
            [&] { source.CreateSymbolicLink(handle); },
            [&] { handle.SetPermissions(0777); },
            [&] { handle.Remove(); },
            [&] { handle.RemoveDirectory(); },
            [&] { handle.RemoveDirectoryRecursive(); }});

    swapper.stop();
    expectBystanderWhole();
    EXPECT_TRUE(handle.RemoveDirectory());
    EXPECT_TRUE(handle.CreateDirectory());
    EXPECT_TRUE(arena.RemoveDirectoryRecursive());
}

TEST_F(SwappedEntriesTest, WhatDoesNotFollowLinksSparesWhatTheyLeadTo) {
    std::string const entry = at("arena/entry");
    Swapper swapper(entry, at("bystander/file"), at("bystander"));
    FileHandle handle(entry);
    FileHandle arena(at("arena"));
    FileHandle moved(at("arena/moved"));

    inTurn(scaled(25000), swapper,
           {[&] { handle.Remove(); }, [&] { handle.RemoveDirectory(); },
            [&] { handle.CreateDirectory(); }, [&] { arena.ListDirectory(); },
            [&] { handle.ListDirectory(); },
            [&] { lengthOf(*handle.CreateInputStream(std::ios_base::in)); },
            [&] {
                FileHandle copy(at("copy"));
                handle.Copy(copy);
            },
            // The place is free, or another link that is replaced.
            [&] {
                FileHandle renamed(entry);
                renamed.Rename("new");
            },
            [&] {
                FileHandle renamed(at("arena/new"));
                renamed.Remove();
                renamed.RemoveDirectory();
                unlink(at("arena/new").c_str());
                unlink(at("arena/new/inside").c_str());
            }});

    swapper.stop();
    expectBystanderWhole();
}

TEST_F(SwappedEntriesTest, RemovingATreeSparesTheFilesThatItsLinksLeadTo) {
    std::string const tree = at("arena/tree");
    ASSERT_TRUE(FileHandle(tree).CreateDirectory());
    Swapper swapper(tree + "/entry", at("bystander/file"), "");
    FileHandle handle(tree);
    FileHandle inner(tree + "/inner");
    int removed = 0;

    inTurn(scaled(5000), swapper, {[&] {
               handle.CreateDirectory();
               if (inner.CreateDirectory()) {
                   FileHandle file = inner.Open("file");
                   file.CreateOutputStream(std::ios_base::out);
               }
               if (handle.RemoveDirectoryRecursive()) {
                   ++removed;
               }
           }});

    swapper.stop();
    expectBystanderWhole();
    // Left to itself, it is done whatever is left.
    handle.CreateDirectory();
    EXPECT_TRUE(handle.RemoveDirectoryRecursive());
    EXPECT_GT(removed, 0);
}

}  // namespace

}  // namespace ovra::fs
