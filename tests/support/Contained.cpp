#include <tests/support/Contained.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ovra::test {

namespace {

bool ownRoot = false;

// The program that counts what is run writes to its build directory when it ends.
#ifdef OVRA_TEST_COUNTS
bool keepCounts(std::string const& newRoot) {
    std::string const directory = OVRA_TEST_COUNTS;
    for (std::size_t end = 0; (end = directory.find('/', end + 1)) != std::string::npos;) {
        mkdir((newRoot + directory.substr(0, end)).c_str(), 0755);
    }
    mkdir((newRoot + directory).c_str(), 0755);
    return mount(directory.c_str(), (newRoot + directory).c_str(), nullptr, MS_BIND, nullptr) == 0;
}
#else
bool keepCounts(std::string const&) {
    return true;
}
#endif

std::string enterOwnRoot() {
    std::string const base = "/tmp";
    std::string const old = base + "/old";
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::string("no mount namespace of its own: ") + std::strerror(errno);
    }
    if (mount("contained", base.c_str(), "tmpfs", 0, "mode=755") != 0 ||
        mkdir((base + "/tmp").c_str(), 0777) != 0 || chmod((base + "/tmp").c_str(), 01777) != 0 ||
        mkdir((base + "/proc").c_str(), 0555) != 0 || mkdir(old.c_str(), 0700) != 0 ||
        mount("/proc", (base + "/proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        !keepCounts(base)) {
        return std::string("no file system of its own: ") + std::strerror(errno);
    }
    if (syscall(SYS_pivot_root, base.c_str(), old.c_str()) != 0 || chdir("/") != 0 ||
        umount2("/old", MNT_DETACH) != 0 || rmdir("/old") != 0) {
        return std::string("no root of its own: ") + std::strerror(errno);
    }
    unsetenv("TMPDIR");
    ownRoot = true;
    return std::string();
}

}  // namespace

std::string const& contain() {
    static std::string const reason = geteuid() == 0 ? enterOwnRoot() : std::string();
    return reason;
}

bool hasOwnRoot() {
    return ownRoot;
}

}  // namespace ovra::test
