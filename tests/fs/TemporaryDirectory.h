#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <gtest/gtest.h>

#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace ovra::fs::test {

/// What each open descriptor of this process stands for: a device and an inode. Its name may
/// change, as that of a log which the test runner renames.
using OpenDescriptors = std::map<int, std::pair<dev_t, ino_t>>;
OpenDescriptors openDescriptors();

// What stands on the disk, asked without the library. Links are not followed.

void writeFile(std::string const& path, std::string const& contents = "contents");
/// Follows links. Nothing if the file cannot be read.
std::optional<std::string> readFile(std::string const& path);
bool entryExists(std::string const& path);
/// The type and permission bits of st_mode; 0 if there is no entry.
mode_t modeOf(std::string const& path);
mode_t permissionsOf(std::string const& path);
/// The status of the entry or of a link's final target, which must exist.
struct stat statusOf(std::string const& path);
/// The contents of a link; nothing if there is no link.
std::optional<std::string> linkContents(std::string const& path);
void setPermissions(std::string const& path, mode_t mode);
void setModificationTime(std::string const& path, std::int64_t seconds, long nanoseconds = 0);
void makeDirectory(std::string const& path);
void makeLink(std::string const& contents, std::string const& path);
void makeHardLink(std::string const& existing, std::string const& path);
void makePipe(std::string const& path);
void makeSocket(std::string const& path);
/// Bytes without a pattern that a wrong offset could hide in.
std::string patternlessBytes(std::size_t count);
/// The names in a directory without "." and "..", in the order of the system.
std::vector<std::string> namesIn(std::string const& directory);

/// A fresh directory for each test, removed afterwards with all that is in it. The umask is 022
/// meanwhile, a hang ends the process, and a descriptor that stays open fails the test.
class TemporaryDirectoryTest : public ::testing::Test {
protected:
    TemporaryDirectoryTest();
    ~TemporaryDirectoryTest() override;

    void TearDown() override;

    std::string at(std::string const& name) const { return root + "/" + name; }

private:
    ovra::test::Watchdog watchdog;
    mode_t const previousMask;
    OpenDescriptors const descriptors;
    ovra::test::ScratchDirectory const scratch;

protected:
    std::string const root;
};

/// Makes `path` the current directory for as long as it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(std::string const& path);
    WorkingDirectory(WorkingDirectory const&) = delete;
    WorkingDirectory& operator=(WorkingDirectory const&) = delete;
    ~WorkingDirectory();

private:
    std::string previous;
};

/// Takes the rights of the superuser from this process for as long as it lives, and hands
/// `directory` to the user that then runs. Does nothing when an ordinary user runs the tests.
class OrdinaryUser {
public:
    explicit OrdinaryUser(std::string const& directory);
    OrdinaryUser(OrdinaryUser const&) = delete;
    OrdinaryUser& operator=(OrdinaryUser const&) = delete;
    ~OrdinaryUser();

private:
    bool const wasSuperuser;
    std::vector<gid_t> groups;
};

bool isSuperuser();

/// Thrown by a body in a child process that cannot test what it is meant to.
struct Skip {
    std::string reason;
};

/// What became of a body that ran in a child process.
struct ChildOutcome {
    std::string skipReason;  ///< Empty when the body ran.
    bool passed = false;
};

/// Mounts a small file system in memory, seen by nobody else, on `mountPoint`, and runs `body` in a
/// child process that sees it. `options` are those of mount(8), such as "size=64k".
ChildOutcome onPrivateFileSystem(std::string const& mountPoint, std::string const& options,
                                 std::function<void()> const& body);

/// Lets no more descriptors be opened than `more` beyond those open now, for as long as it lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(unsigned int more);
    DescriptorLimit(DescriptorLimit const&) = delete;
    DescriptorLimit& operator=(DescriptorLimit const&) = delete;
    ~DescriptorLimit();

private:
    std::uint64_t previous = 0;
};

}  // namespace ovra::fs::test
