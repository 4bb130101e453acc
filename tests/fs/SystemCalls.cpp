#include <tests/fs/SystemCalls.h>

#include <dirent.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include <tests/support/NextFunction.h>
#include <tests/support/Pause.h>

using ovra::test::nextFunction;
using ovra::test::Pause;

namespace ovra::fs::test {

namespace {

thread_local SystemCalls* recorder = nullptr;

std::string octal(unsigned int mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

/// The path that an open directory has now.
std::string pathOf(int directory) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(directory), error)
        .string();
}

/// Whether the call may happen. `describe` says what to record for it.
template <typename Describe>
bool admit(Describe describe) {
    if (recorder == nullptr) {
        return true;
    }
    Pause const pause(recorder);
    int const error = pause.paused->enter(describe(*pause.paused));
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

bool admitPath(char const* name, char const* path) {
    return admit([&](SystemCalls const& calls) { return name + (" " + calls.shorten(path)); });
}

bool admitPathBelow(char const* name, int directory, char const* path) {
    return admit([&](SystemCalls const& calls) {
        return name + (" " + calls.shorten((pathOf(directory) + "/" + path).c_str()));
    });
}

bool admitPair(char const* name, char const* from, char const* to) {
    return admit([&](SystemCalls const& calls) {
        return name + (" " + calls.shorten(from)) + " " + calls.shorten(to);
    });
}

bool admitOwner(char const* name, char const* path, uid_t user, gid_t group) {
    return admit([&](SystemCalls const& calls) {
        return std::string(name) + " " + std::to_string(user) + ":" + std::to_string(group) + " " +
               calls.shorten(path);
    });
}

bool admitMode(char const* name, char const* path, mode_t mode) {
    return admit([&](SystemCalls const& calls) {
        return std::string(name) + " " + octal(mode) + " " + calls.shorten(path);
    });
}

bool admitOpening(char const* path, char const* mode) {
    return admit(
        [&](SystemCalls const& calls) { return "open " + calls.shorten(path) + " " + mode; });
}

struct dirent* disguise(struct dirent* entry) {
    if (recorder != nullptr && entry != nullptr) {
        entry->d_type = recorder->entryType.value_or(entry->d_type);
    }
    return entry;
}

bool admitName(char const* name) {
    return admit([&](SystemCalls const&) { return std::string(name); });
}

void announceWrite() {
    if (recorder != nullptr && recorder->onWrite) {
        recorder->onWrite();
    }
}

}  // namespace

SystemCalls::SystemCalls(std::string directory) : root(std::move(directory)) {
    recorder = this;
}

SystemCalls::~SystemCalls() {
    recorder = nullptr;
}

std::vector<std::string> SystemCalls::take() {
    Pause const pause(recorder);
    return std::exchange(calls, {});
}

int SystemCalls::count(std::string const& name) const {
    int number = 0;
    for (std::string const& call : calls) {
        number += call.substr(0, call.find(' ')) == name ? 1 : 0;
    }
    return number;
}

int SystemCalls::enter(std::string const& call) {
    calls.push_back(call);
    return intercept ? intercept(call) : 0;
}

std::string SystemCalls::shorten(char const* path) const {
    std::string text = path;
    if (text.compare(0, root.size(), root) == 0) {
        text.erase(0, root.size());
        if (text.empty()) {
            return ".";
        }
        if (text[0] == '/') {
            text.erase(0, 1);
        }
    }
    return text.empty() ? "\"\"" : text;
}

}  // namespace ovra::fs::test

// Each function is defined under the name that it has in the C library, whatever name the headers
// of this platform give it, and for every name that a build for 32 or 64 bits may call.

using ovra::fs::test::admitMode;
using ovra::fs::test::admitName;
using ovra::fs::test::admitOpening;
using ovra::fs::test::admitOwner;
using ovra::fs::test::admitPair;
using ovra::fs::test::admitPath;
using ovra::fs::test::admitPathBelow;
using ovra::fs::test::announceWrite;
using ovra::fs::test::disguise;

#define OVRA_STATUS_CALL(symbol, name)                                             \
    extern "C" int ovraTest_##symbol(char const* path, void* status) asm(#symbol); \
    extern "C" int ovraTest_##symbol(char const* path, void* status) {             \
        if (!admitPath(name, path)) {                                              \
            return -1;                                                             \
        }                                                                          \
        return nextFunction<int(char const*, void*)>(#symbol)(path, status);       \
    }

OVRA_STATUS_CALL(lstat, "lstat")
OVRA_STATUS_CALL(lstat64, "lstat")
OVRA_STATUS_CALL(__lstat64_time64, "lstat")
OVRA_STATUS_CALL(stat, "stat")
OVRA_STATUS_CALL(stat64, "stat")
OVRA_STATUS_CALL(__stat64_time64, "stat")

#define OVRA_STATUS_BELOW_CALL(symbol)                                                           \
    extern "C" int ovraTest_##symbol(int directory, char const* path, void* status,              \
                                     int flags) asm(#symbol);                                    \
    extern "C" int ovraTest_##symbol(int directory, char const* path, void* status, int flags) { \
        if (!admitPathBelow("fstatat", directory, path)) {                                       \
            return -1;                                                                           \
        }                                                                                        \
        return nextFunction<int(int, char const*, void*, int)>(#symbol)(directory, path, status, \
                                                                        flags);                  \
    }

OVRA_STATUS_BELOW_CALL(fstatat)
OVRA_STATUS_BELOW_CALL(fstatat64)
OVRA_STATUS_BELOW_CALL(__fstatat64_time64)

extern "C" int ovraTest_unlinkat(int directory, char const* path, int flags) asm("unlinkat");
extern "C" int ovraTest_unlinkat(int directory, char const* path, int flags) {
    if (!admitPathBelow("unlinkat", directory, path)) {
        return -1;
    }
    return nextFunction<int(int, char const*, int)>("unlinkat")(directory, path, flags);
}

#define OVRA_PATH_CALL(symbol)                                       \
    extern "C" int ovraTest_##symbol(char const* path) asm(#symbol); \
    extern "C" int ovraTest_##symbol(char const* path) {             \
        if (!admitPath(#symbol, path)) {                             \
            return -1;                                               \
        }                                                            \
        return nextFunction<int(char const*)>(#symbol)(path);        \
    }

OVRA_PATH_CALL(remove)
OVRA_PATH_CALL(unlink)
OVRA_PATH_CALL(rmdir)

#define OVRA_PAIR_CALL(symbol)                                                       \
    extern "C" int ovraTest_##symbol(char const* from, char const* to) asm(#symbol); \
    extern "C" int ovraTest_##symbol(char const* from, char const* to) {             \
        if (!admitPair(#symbol, from, to)) {                                         \
            return -1;                                                               \
        }                                                                            \
        return nextFunction<int(char const*, char const*)>(#symbol)(from, to);       \
    }

OVRA_PAIR_CALL(rename)
OVRA_PAIR_CALL(symlink)
OVRA_PAIR_CALL(link)

#define OVRA_OWNER_CALL(symbol)                                                               \
    extern "C" int ovraTest_##symbol(char const* path, uid_t user, gid_t group) asm(#symbol); \
    extern "C" int ovraTest_##symbol(char const* path, uid_t user, gid_t group) {             \
        if (!admitOwner(#symbol, path, user, group)) {                                        \
            return -1;                                                                        \
        }                                                                                     \
        return nextFunction<int(char const*, uid_t, gid_t)>(#symbol)(path, user, group);      \
    }

OVRA_OWNER_CALL(chown)
OVRA_OWNER_CALL(lchown)

#define OVRA_MODE_CALL(symbol)                                                    \
    extern "C" int ovraTest_##symbol(char const* path, mode_t mode) asm(#symbol); \
    extern "C" int ovraTest_##symbol(char const* path, mode_t mode) {             \
        if (!admitMode(#symbol, path, mode)) {                                    \
            return -1;                                                            \
        }                                                                         \
        return nextFunction<int(char const*, mode_t)>(#symbol)(path, mode);       \
    }

OVRA_MODE_CALL(chmod)
OVRA_MODE_CALL(mkdir)

#define OVRA_OPEN_CALL(symbol)                                                           \
    extern "C" void* ovraTest_##symbol(char const* path, char const* mode) asm(#symbol); \
    extern "C" void* ovraTest_##symbol(char const* path, char const* mode) {             \
        if (!admitOpening(path, mode)) {                                                 \
            return nullptr;                                                              \
        }                                                                                \
        return nextFunction<void*(char const*, char const*)>(#symbol)(path, mode);       \
    }

OVRA_OPEN_CALL(fopen)
OVRA_OPEN_CALL(fopen64)

extern "C" int ovraTest_access(char const* path, int mode) asm("access");
extern "C" int ovraTest_access(char const* path, int mode) {
    if (!admitPath("access", path)) {
        return -1;
    }
    return nextFunction<int(char const*, int)>("access")(path, mode);
}

// What a path could ask that wants to know more than its text says.
extern "C" char* ovraTest_realpath(char const* path, char* resolved) asm("realpath");
extern "C" char* ovraTest_realpath(char const* path, char* resolved) {
    if (!admitPath("realpath", path)) {
        return nullptr;
    }
    return nextFunction<char*(char const*, char*)>("realpath")(path, resolved);
}

extern "C" ssize_t ovraTest_readlink(char const* path, char* buffer,
                                     std::size_t size) asm("readlink");
extern "C" ssize_t ovraTest_readlink(char const* path, char* buffer, std::size_t size) {
    if (!admitPath("readlink", path)) {
        return -1;
    }
    return nextFunction<ssize_t(char const*, char*, std::size_t)>("readlink")(path, buffer, size);
}

extern "C" char* ovraTest_getcwd(char* buffer, std::size_t size) asm("getcwd");
extern "C" char* ovraTest_getcwd(char* buffer, std::size_t size) {
    if (!admitName("getcwd")) {
        return nullptr;
    }
    return nextFunction<char*(char*, std::size_t)>("getcwd")(buffer, size);
}

extern "C" void* ovraTest_opendir(char const* path) asm("opendir");
extern "C" void* ovraTest_opendir(char const* path) {
    if (!admitPath("opendir", path)) {
        return nullptr;
    }
    return nextFunction<void*(char const*)>("opendir")(path);
}

// The record of each of the two is laid out as this file's own `struct dirent`, which has 64 bits.
#define OVRA_READ_CALL(symbol)                                                 \
    extern "C" struct dirent* ovraTest_##symbol(void* stream) asm(#symbol);    \
    extern "C" struct dirent* ovraTest_##symbol(void* stream) {                \
        if (!admitName("readdir")) {                                           \
            return nullptr;                                                    \
        }                                                                      \
        return disguise(nextFunction<struct dirent*(void*)>(#symbol)(stream)); \
    }

OVRA_READ_CALL(readdir)
OVRA_READ_CALL(readdir64)

extern "C" int ovraTest_closedir(void* stream) asm("closedir");
extern "C" int ovraTest_closedir(void* stream) {
    admitName("closedir");
    return nextFunction<int(void*)>("closedir")(stream);
}

extern "C" ssize_t ovraTest_read(int descriptor, void* buffer, std::size_t size) asm("read");
extern "C" ssize_t ovraTest_read(int descriptor, void* buffer, std::size_t size) {
    if (!admitName("read")) {
        return -1;
    }
    return nextFunction<ssize_t(int, void*, std::size_t)>("read")(descriptor, buffer, size);
}

extern "C" ssize_t ovraTest_write(int descriptor, void const* data, std::size_t size) asm("write");
extern "C" ssize_t ovraTest_write(int descriptor, void const* data, std::size_t size) {
    announceWrite();
    return nextFunction<ssize_t(int, void const*, std::size_t)>("write")(descriptor, data, size);
}

extern "C" ssize_t ovraTest_writev(int descriptor, struct iovec const* pieces,
                                   int count) asm("writev");
extern "C" ssize_t ovraTest_writev(int descriptor, struct iovec const* pieces, int count) {
    announceWrite();
    return nextFunction<ssize_t(int, struct iovec const*, int)>("writev")(descriptor, pieces,
                                                                          count);
}
