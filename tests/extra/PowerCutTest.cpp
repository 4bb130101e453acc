// What a loss of power leaves of a file that is being replaced: the calls are recorded, and every
// beginning of them is replayed on a disk that forgets what was not synced, in every combination.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ovra/extra/ReplaceFile.h>
#include <tests/fs/TemporaryDirectory.h>

#include <tests/extra/Intercepted.h>

namespace ovra::extra {

namespace {

using namespace ovra::fs::test;
using test::Intercepted;
using test::SystemCall;
using ::testing::ElementsAre;

constexpr int OLD_FILE = -100;  // Instead of a descriptor: what was there before.

/// What a file holds on the medium, or would.
struct Stored {
    std::string bytes;
    mode_t mode = 0;
    uid_t user = 0;
    gid_t group = 0;

    friend bool operator==(Stored const& left, Stored const& right) {
        return left.bytes == right.bytes && left.mode == right.mode && left.user == right.user &&
               left.group == right.group;
    }
};

/// A change that the medium may or may not have seen.
struct Change {
    int file;             // What it changes; the directory's are known by their names.
    std::string name;     // Of the directory's: the name that from now on means `file`
    std::string oldName;  // and the one that is removed.
    std::size_t offset = 0;
    std::string bytes;
    mode_t mode = 0;
    bool setsMode = false;
    uid_t user = 0;
    gid_t group = 0;
    bool setsOwner = false;

    bool isOfDirectory() const { return !name.empty() || !oldName.empty(); }
};

/// One directory and the files in it. Open files are known by their descriptors, which are never
/// used twice here.
class Disk {
public:
    explicit Disk(std::map<std::string, Stored> const& before) {
        int number = OLD_FILE;
        for (auto const& entry : before) {
            names[entry.first] = number;
            files[number--] = entry.second;
        }
    }

    void perform(SystemCall const& call) {
        if (call.result < 0) {
            return;
        }
        if (call.name == "openat" && (call.flags & O_CREAT) != 0) {
            int const file = static_cast<int>(call.result);
            sizes[file] = 0;
            files[file] = Stored{"", call.mode, geteuid(), getegid()};
            pending.push_back({file, call.path, "", 0, "", 0, false});
        } else if (call.name == "write") {
            addWrite(call);
        } else if (call.name == "fchmod") {
            pending.push_back({call.descriptor, "", "", 0, "", call.mode, true});
        } else if (call.name == "fchown") {
            Change change = {call.descriptor, "", "", 0, "", 0, false};
            change.user = call.user;
            change.group = call.group;
            change.setsOwner = true;
            pending.push_back(change);
        } else if (call.name == "fsync") {
            sync(call.descriptor);
        } else if (call.name == "renameat") {
            pending.push_back({opened.at(call.path), call.newPath, call.path, 0, "", 0, false});
        } else if (call.name == "unlinkat") {
            pending.push_back({OLD_FILE, "", call.path, 0, "", 0, false});
        }
        if (call.name == "openat" && (call.flags & O_CREAT) != 0) {
            opened[call.path] = static_cast<int>(call.result);
        }
    }

    /// Everything that `name` may hold after a loss of power now. Nothing: it is not there.
    std::vector<std::optional<Stored>> afterPowerCut(std::string const& name) const {
        std::vector<std::optional<Stored>> found;
        for (std::uint32_t kept = 0; kept < (1u << pending.size()); ++kept) {
            Disk later = *this;
            for (std::size_t i = 0; i < pending.size(); ++i) {
                if ((kept >> i & 1) != 0) {
                    later.apply(pending[i]);
                }
            }
            auto const entry = later.names.find(name);
            found.push_back(entry == later.names.end()
                                ? std::nullopt
                                : std::optional<Stored>(later.files.at(entry->second)));
        }
        return found;
    }

private:
    // In three pieces, each of which may be missing: no system promises to write it as one.
    void addWrite(SystemCall const& call) {
        auto const count = static_cast<std::size_t>(call.result);
        for (std::size_t begin = 0, piece = 0; piece < 3; ++piece) {
            std::size_t const end = count * (piece + 1) / 3;
            pending.push_back({call.descriptor, "", "", sizes[call.descriptor] + begin,
                               call.bytes.substr(begin, end - begin), 0, false});
            begin = end;
        }
        sizes[call.descriptor] += count;
    }

    // What is no file is the directory.
    void sync(int descriptor) {
        bool const isFile = sizes.count(descriptor) != 0;
        std::vector<Change> left;
        for (Change const& change : pending) {
            if (isFile ? !change.isOfDirectory() && change.file == descriptor
                       : change.isOfDirectory()) {
                apply(change);
            } else {
                left.push_back(change);
            }
        }
        pending = left;
    }

    void apply(Change const& change) {
        if (change.isOfDirectory()) {
            names.erase(change.oldName);
            if (!change.name.empty()) {
                names[change.name] = change.file;
            }
            return;
        }
        Stored& file = files[change.file];
        if (change.setsMode) {
            file.mode = change.mode;
            return;
        }
        if (change.setsOwner) {
            file.user = change.user != static_cast<uid_t>(-1) ? change.user : file.user;
            file.group = change.group;
            return;
        }
        if (file.bytes.size() < change.offset + change.bytes.size()) {
            file.bytes.resize(change.offset + change.bytes.size());
        }
        file.bytes.replace(change.offset, change.bytes.size(), change.bytes);
    }

    std::map<std::string, int> names;
    std::map<int, Stored> files;
    std::map<std::string, int> opened;
    std::map<int, std::size_t> sizes;
    std::vector<Change> pending;
};

Stored mine(std::string const& bytes, mode_t mode) {
    return {bytes, mode, geteuid(), getegid()};
}

class PowerCutTest : public TemporaryDirectoryTest {
protected:
    /// Records what replacing `path` does, no descriptor being used twice.
    std::vector<SystemCall> record(std::string const& path, std::string const& contents,
                                   Outcome expected,
                                   std::function<int(SystemCall const&)> before = nullptr) {
        Intercepted calls;
        calls.mostBytes = 4;
        std::vector<int> used;
        calls.before = before;
        errno = EDOM;
        Outcome const outcome = replaceFile(path, contents);
        EXPECT_EQ(errno, EDOM);
        EXPECT_STREQ(outcomeName(outcome), outcomeName(expected));
        return withEachDescriptorUsedOnce(calls.calls());
    }

    // Numbers what is opened from 1000 on.
    static std::vector<SystemCall> withEachDescriptorUsedOnce(std::vector<SystemCall> calls) {
        std::map<long, int> numbers;
        int next = 1000;
        for (SystemCall& call : calls) {
            auto const found = numbers.find(call.descriptor);
            if (found != numbers.end()) {
                call.descriptor = found->second;
            }
            if (call.name == "openat" && call.result >= 0) {
                numbers[call.result] = next;
                call.result = next++;
            }
        }
        return calls;
    }

    ~PowerCutTest() override { RecordProperty("disks", disks); }

    /// Cuts the power after every call. `old` empty: the file was not there.
    void cutEverywhere(std::vector<SystemCall> const& calls, std::string const& name,
                       std::optional<Stored> const& old, Stored const& fresh, bool isDone = true) {
        Disk disk(old ? std::map<std::string, Stored>{{name, *old}}
                      : std::map<std::string, Stored>{});
        for (std::size_t made = 0; made <= calls.size(); ++made) {
            for (std::optional<Stored> const& found : disk.afterPowerCut(name)) {
                ++disks;
                bool const isOld = found == old;
                bool const isNew = found == fresh;
                ASSERT_TRUE(isNew || isOld) << "after " << made << " calls, the last of which is "
                                            << (made == 0 ? "" : calls[made - 1].name) << ": "
                                            << (found ? "\"" + found->bytes + "\"" : "nothing");
                if (made == calls.size() && isDone) {
                    ASSERT_TRUE(isNew) << "done, and lost";
                }
            }
            if (made < calls.size()) {
                disk.perform(calls[made]);
            }
        }
    }

    int disks = 0;  // That a loss of power may leave, and that were looked at.
};

TEST_F(PowerCutTest, LeavesTheOldContentsOrTheNew) {
    writeFile(at("f"), "old contents");
    setPermissions(at("f"), 0640);
    auto const calls = record(at("f"), "new", Outcome::DONE);
    cutEverywhere(calls, "f", mine("old contents", 0640), mine("new", 0640));
}

TEST_F(PowerCutTest, LeavesTheOldContentsOrTheNewOfSeveralWrites) {
    writeFile(at("f"), "old");
    auto const calls = record(at("f"), "0123456789", Outcome::DONE);
    cutEverywhere(calls, "f", mine("old", 0644), mine("0123456789", 0644));
}

TEST_F(PowerCutTest, LeavesTheOldContentsOrNone) {
    writeFile(at("f"), "old");
    auto const calls = record(at("f"), "", Outcome::DONE);
    cutEverywhere(calls, "f", mine("old", 0644), mine("", 0644));
}

TEST_F(PowerCutTest, LeavesNoFileOrTheNewOne) {
    auto const calls = record(at("f"), "new", Outcome::DONE);
    cutEverywhere(calls, "f", std::nullopt, mine("new", 0644));
}

TEST_F(PowerCutTest, LeavesTheTargetOfALinkOldOrNew) {
    makeDirectory(at("d"));
    writeFile(at("d/f"), "old");
    makeLink("d/f", at("link"));
    auto const calls = record(at("link"), "new", Outcome::DONE);
    cutEverywhere(calls, "f", mine("old", 0644), mine("new", 0644));
}

// Another user's file, which the superuser replaces.
TEST_F(PowerCutTest, LeavesTheOldFileOrTheNewWithTheOwnerOfTheOld) {
    if (!isSuperuser()) {
        GTEST_SKIP() << "an ordinary user may not give files away";
    }
    writeFile(at("f"), "old");
    ASSERT_EQ(chown(at("f").c_str(), 65534, 65533), 0);
    setPermissions(at("f"), 06755);
    auto const calls = record(at("f"), "new", Outcome::DONE);
    cutEverywhere(calls, "f", Stored{"old", 06755, 65534, 65533},
                  Stored{"new", 06755, 65534, 65533});
    EXPECT_EQ(statusOf(at("f")).st_uid, 65534u);
    EXPECT_EQ(permissionsOf(at("f")), 06755u);
}

// The same, whichever call fails.
TEST_F(PowerCutTest, LeavesTheOldContentsOrTheNewWhicheverCallFails) {
    std::size_t const most = 40;
    std::size_t failing = 0;
    for (bool failed = true; failed && failing < most; ++failing) {
        writeFile(at("f"), "old");
        failed = false;
        std::size_t made = 0;
        Intercepted calls;
        calls.mostBytes = 4;
        calls.before = [&](SystemCall const&) {
            bool const isIt = made++ == failing;
            failed = failed || isIt;
            return isIt ? EIO : 0;
        };
        Outcome const outcome = replaceFile(at("f"), "012345");
        bool const isDone = outcome == Outcome::DONE;
        bool const isNew = isDone || outcome == Outcome::DONE_NOT_SYNCED;
        calls.before = nullptr;
        cutEverywhere(withEachDescriptorUsedOnce(calls.calls()), "f", mine("old", 0644),
                      mine("012345", 0644), isDone);
        EXPECT_EQ(readFile(at("f")), isNew ? "012345" : "old");
        EXPECT_THAT(namesIn(root), ElementsAre("f"));
    }
    EXPECT_GT(failing, 8u);
    EXPECT_LT(failing, most);
}

TEST_F(PowerCutTest, WhatIsIncompleteIsPrivateAndExclusivelyMade) {
    writeFile(at("f"), "old");
    setPermissions(at("f"), 0666);
    umask(0);
    auto const calls = record(at("f"), "01234567", Outcome::DONE);
    umask(022);
    int file = -1;
    bool isOpenToOthers = false;
    for (SystemCall const& call : calls) {
        if (call.name == "openat") {
            EXPECT_NE(call.flags & O_CLOEXEC, 0) << call.path;
        }
        if (call.name == "openat" && (call.flags & O_CREAT) != 0) {
            EXPECT_EQ(file, -1) << "a second file is made";
            file = static_cast<int>(call.result);
            EXPECT_NE(call.flags & O_EXCL, 0);
            EXPECT_EQ(call.mode, 0600u);
            EXPECT_EQ(call.path.substr(0, 3), ".f.");
            EXPECT_EQ(call.path.size(), 9u);
        }
        isOpenToOthers = isOpenToOthers || (call.name == "fchmod" && call.descriptor == file);
        if (call.name == "write") {
            EXPECT_EQ(call.descriptor, file);
            EXPECT_FALSE(isOpenToOthers);
        }
    }
    EXPECT_TRUE(isOpenToOthers);
    EXPECT_EQ(permissionsOf(at("f")), 0666u);
}

TEST_F(PowerCutTest, ASyncThatFailsIsNotTriedAgain) {
    for (int const error : {EIO, EINTR, ENOSPC}) {
        writeFile(at("f"), "old");
        for (int failing : {1, 2}) {
            Intercepted calls;
            int syncs = 0;
            calls.before = [&](SystemCall const& call) {
                return call.name == "fsync" && ++syncs == failing ? error : 0;
            };
            Outcome const outcome = replaceFile(at("f"), "new");
            calls.before = nullptr;
            EXPECT_EQ(outcome, failing == 1 ? outcomeOf(error) : Outcome::DONE_NOT_SYNCED);
            EXPECT_EQ(calls.count("fsync"), failing);
            EXPECT_EQ(readFile(at("f")), failing == 1 ? "old" : "new");
        }
        Intercepted calls;
        calls.before = [&](SystemCall const& call) { return call.name == "fsync" ? error : 0; };
        EXPECT_EQ(syncFile(at("f")), outcomeOf(error));
        EXPECT_EQ(calls.count("fsync"), 1);
    }
}

TEST_F(PowerCutTest, AFileThatTakesNoBytesIsAFailure) {
    writeFile(at("f"), "old");
    Intercepted calls;
    calls.mostBytes = 0;
    EXPECT_EQ(replaceFile(at("f"), "new"), Outcome::DAMAGED);
    EXPECT_EQ(calls.count("write"), 1);
    EXPECT_EQ(readFile(at("f")), "old");
}

// Whatever fails while the temporary file is removed.
TEST_F(PowerCutTest, SaysWhyItFailedAndNotWhyItCouldNotCleanUp) {
    writeFile(at("f"), "old");
    Intercepted calls;
    calls.before = [&](SystemCall const& call) {
        if (call.name == "fsync") {
            return ENOSPC;
        }
        return call.name == "unlinkat" || call.name == "close" ? EIO : 0;
    };
    EXPECT_EQ(replaceFile(at("f"), "new"), Outcome::FULL);
    EXPECT_EQ(calls.count("unlinkat"), 1);
    EXPECT_EQ(calls.count("close"), 2);
    EXPECT_EQ(readFile(at("f")), "old");
}

TEST_F(PowerCutTest, ASampleThatCannotBeRemovedIsAFailure) {
    Intercepted calls;
    calls.before = [&](SystemCall const& call) { return call.name == "unlinkat" ? EIO : 0; };
    EXPECT_EQ(replaceFile(at("f"), "new"), Outcome::DAMAGED);
    EXPECT_FALSE(entryExists(at("f")));
}

}  // namespace

}  // namespace ovra::extra
