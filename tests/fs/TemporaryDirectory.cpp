#include <tests/fs/TemporaryDirectory.h>

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace ovra::fs::test {

namespace {

constexpr uid_t ORDINARY_USER = 65534;
constexpr gid_t ORDINARY_GROUP = 65534;

// A test that cannot prepare its ground must fail, not test something else.
void require(bool succeeded, std::string const& what) {
    if (!succeeded) {
        throw std::runtime_error(what + ": " + std::strerror(errno));
    }
}

std::vector<std::string> namesIn(DIR* stream) {
    std::vector<std::string> names;
    while (struct dirent const* const entry = readdir(stream)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(std::move(name));
        }
    }
    return names;
}

void writeControlFile(char const* path, std::string const& text) {
    std::ofstream(path) << text;
}

// Empty, or why there can be no file system of our own.
std::string enterPrivateFileSystem(std::string const& mountPoint, std::string const& options) {
    if (isSuperuser()) {
        if (unshare(CLONE_NEWNS) != 0) {
            return std::string("no mount namespace of our own: ") + std::strerror(errno);
        }
    } else {
        std::string const user = std::to_string(getuid());
        std::string const group = std::to_string(getgid());
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return std::string("no user and mount namespace of our own: ") + std::strerror(errno);
        }
        writeControlFile("/proc/self/setgroups", "deny");
        writeControlFile("/proc/self/uid_map", "0 " + user + " 1");
        writeControlFile("/proc/self/gid_map", "0 " + group + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("ovra-test", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        return std::string("no file system may be mounted: ") + std::strerror(errno);
    }
    return std::string();
}

}  // namespace

OpenDescriptors openDescriptors() {
    OpenDescriptors descriptors;
    DIR* const stream = opendir("/proc/self/fd");
    require(stream != nullptr, "opendir /proc/self/fd");
    for (std::string const& name : namesIn(stream)) {
        int const descriptor = std::stoi(name);
        if (descriptor != dirfd(stream)) {
            struct stat status = {};
            require(fstat(descriptor, &status) == 0, "fstat " + name);
            descriptors[descriptor] = {status.st_dev, status.st_ino};
        }
    }
    closedir(stream);
    return descriptors;
}

void writeFile(std::string const& path, std::string const& contents) {
    std::ofstream stream(path, std::ios_base::binary);
    stream << contents << std::flush;
    require(stream.good(), "write " + path);
}

std::optional<std::string> readFile(std::string const& path) {
    std::ifstream stream(path, std::ios_base::binary);
    if (!stream) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

bool entryExists(std::string const& path) {
    return modeOf(path) != 0;
}

mode_t modeOf(std::string const& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

mode_t permissionsOf(std::string const& path) {
    return modeOf(path) & 07777;
}

struct stat statusOf(std::string const& path) {
    struct stat status = {};
    require(stat(path.c_str(), &status) == 0, "stat " + path);
    return status;
}

void setPermissions(std::string const& path, mode_t mode) {
    require(chmod(path.c_str(), mode) == 0, "chmod " + path);
}

void setModificationTime(std::string const& path, std::int64_t seconds, long nanoseconds) {
    struct timespec const time = {static_cast<time_t>(seconds), nanoseconds};
    struct timespec const times[2] = {time, time};
    require(utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "utimensat " + path);
}

std::string patternlessBytes(std::size_t count) {
    std::string bytes(count, '\0');
    std::uint32_t number = 1;
    for (char& byte : bytes) {
        number = number * 1664525u + 1013904223u;
        byte = static_cast<char>(number >> 24);
    }
    return bytes;
}

std::optional<std::string> linkContents(std::string const& path) {
    std::string contents(5000, '\0');
    ssize_t const length = readlink(path.c_str(), contents.data(), contents.size());
    if (length < 0) {
        return std::nullopt;
    }
    contents.resize(static_cast<std::size_t>(length));
    return contents;
}

void makeDirectory(std::string const& path) {
    require(mkdir(path.c_str(), 0777) == 0, "mkdir " + path);
}

void makeLink(std::string const& contents, std::string const& path) {
    require(symlink(contents.c_str(), path.c_str()) == 0, "symlink " + path);
}

void makeHardLink(std::string const& existing, std::string const& path) {
    require(link(existing.c_str(), path.c_str()) == 0, "link " + path);
}

void makePipe(std::string const& path) {
    require(mkfifo(path.c_str(), 0666) == 0, "mkfifo " + path);
}

void makeSocket(std::string const& path) {
    require(mknod(path.c_str(), S_IFSOCK | 0666, 0) == 0, "mknod " + path);
}

std::vector<std::string> namesIn(std::string const& directory) {
    DIR* const stream = opendir(directory.c_str());
    require(stream != nullptr, "opendir " + directory);
    std::vector<std::string> names = namesIn(stream);
    closedir(stream);
    return names;
}

TemporaryDirectoryTest::TemporaryDirectoryTest()
    : previousMask(umask(022)), descriptors(openDescriptors()), root(scratch.path()) {}

TemporaryDirectoryTest::~TemporaryDirectoryTest() {
    umask(previousMask);
}

void TemporaryDirectoryTest::TearDown() {
    EXPECT_EQ(openDescriptors(), descriptors) << "a descriptor was left open";
}

WorkingDirectory::WorkingDirectory(std::string const& path) {
    char* const name = getcwd(nullptr, 0);
    require(name != nullptr, "getcwd");
    previous = name;
    std::free(name);
    require(chdir(path.c_str()) == 0, "chdir " + path);
}

WorkingDirectory::~WorkingDirectory() {
    if (chdir(previous.c_str()) != 0) {
        ADD_FAILURE() << "no way back to " << previous;
    }
}

OrdinaryUser::OrdinaryUser(std::string const& directory) : wasSuperuser(isSuperuser()) {
    if (!wasSuperuser) {
        return;
    }
    require(chown(directory.c_str(), ORDINARY_USER, ORDINARY_GROUP) == 0, "chown " + directory);
    groups.resize(static_cast<std::size_t>(getgroups(0, nullptr)));
    require(getgroups(static_cast<int>(groups.size()), groups.data()) >= 0, "getgroups");
    require(setgroups(0, nullptr) == 0, "setgroups");
    require(setegid(ORDINARY_GROUP) == 0, "setegid");
    require(seteuid(ORDINARY_USER) == 0, "seteuid");
}

OrdinaryUser::~OrdinaryUser() {
    if (!wasSuperuser) {
        return;
    }
    // The last call lets a leak checker look at the process again.
    if (seteuid(0) != 0 || setegid(0) != 0 || setgroups(groups.size(), groups.data()) != 0 ||
        prctl(PR_SET_DUMPABLE, 1) != 0) {
        ADD_FAILURE() << "no way back to the superuser: " << std::strerror(errno);
    }
}

bool isSuperuser() {
    return geteuid() == 0;
}

ChildOutcome onPrivateFileSystem(std::string const& mountPoint, std::string const& options,
                                 std::function<void()> const& body) {
    constexpr int PASSED = 0;
    constexpr int FAILED = 1;
    constexpr int SKIPPED = 2;
    int reasonPipe[2];
    require(pipe(reasonPipe) == 0, "pipe");
    std::fflush(nullptr);
    pid_t const child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        alarm(ovra::test::deadlineSeconds());
        std::string reason = enterPrivateFileSystem(mountPoint, options);
        if (reason.empty()) {
            try {
                body();
            } catch (Skip const& skip) {
                reason = skip.reason;
            }
        }
        if (!reason.empty()) {
            [[maybe_unused]] ssize_t const written =
                write(reasonPipe[1], reason.data(), reason.size());
            _exit(SKIPPED);
        }
        std::fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? FAILED : PASSED);
    }
    close(reasonPipe[1]);
    char reason[256];
    ssize_t const length = read(reasonPipe[0], reason, sizeof reason);
    close(reasonPipe[0]);
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    ChildOutcome outcome;
    if (WIFEXITED(status) && WEXITSTATUS(status) == SKIPPED) {
        outcome.skipReason.assign(reason, length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    outcome.passed = WIFEXITED(status) && WEXITSTATUS(status) == PASSED;
    return outcome;
}

DescriptorLimit::DescriptorLimit(unsigned int more) {
    // The limit counts numbers, not descriptors, and there may be gaps among those in use.
    int end = 0;
    for (unsigned int available = 0; available < more; ++end) {
        if (fcntl(end, F_GETFD) < 0) {
            ++available;
        }
    }
    struct rlimit limit;
    require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    previous = limit.rlim_cur;
    limit.rlim_cur = static_cast<unsigned int>(end);
    require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

DescriptorLimit::~DescriptorLimit() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        ADD_FAILURE() << "getrlimit: " << std::strerror(errno);
        return;
    }
    limit.rlim_cur = static_cast<rlim_t>(previous);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        ADD_FAILURE() << "setrlimit: " << std::strerror(errno);
    }
}

}  // namespace ovra::fs::test
