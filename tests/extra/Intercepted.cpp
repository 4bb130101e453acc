#include <tests/extra/Intercepted.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <utility>

#include <tests/support/NextFunction.h>
#include <tests/support/Pause.h>

using ovra::test::nextFunction;
using ovra::test::Pause;

namespace ovra::extra::test {

namespace {

thread_local Intercepted* observer = nullptr;

// Makes the call, unless the observer lets it fail.
template <typename Make>
auto observed(SystemCall call, Make make) -> decltype(make()) {
    if (observer == nullptr) {
        return make();
    }
    Pause const pause(observer);
    auto result = static_cast<decltype(make())>(-1);
    if (pause.paused->admit(call)) {
        result = make();
    }
    int const error = errno;
    pause.paused->note(std::move(call), result);
    errno = error;
    return result;
}

SystemCall onPath(char const* name, int descriptor, char const* path, int flags = 0,
                  mode_t mode = 0) {
    SystemCall call;
    call.name = name;
    call.descriptor = descriptor;
    call.path = path != nullptr ? path : "";
    call.flags = flags;
    call.mode = mode;
    return call;
}

}  // namespace

Intercepted::Intercepted() {
    observer = this;
}

Intercepted::~Intercepted() {
    observer = nullptr;
}

int Intercepted::count(std::string const& name) const {
    return static_cast<int>(std::count_if(
        made.begin(), made.end(), [&](SystemCall const& call) { return call.name == name; }));
}

bool Intercepted::admit(SystemCall const& call) {
    int const error = before ? before(call) : 0;
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

void Intercepted::note(SystemCall call, long result) {
    call.result = result;
    made.push_back(std::move(call));
}

namespace {

// The entries as the observer wants them.
ssize_t readEntries(Intercepted const* watching, int directory, void* buffer, std::size_t size) {
    ssize_t const length =
        nextFunction<ssize_t(int, void*, std::size_t)>("getdents64")(directory, buffer, size);
    if (watching == nullptr) {
        return length;
    }
    ssize_t offset = 0;
    for (int left = watching->mostEntries; offset < length && left > 0;) {
        void* const at = static_cast<char*>(buffer) + offset;
        auto* const entry = static_cast<struct dirent64*>(at);
        if (watching->hidesKinds) {
            entry->d_type = DT_UNKNOWN;
        }
        left -= entry->d_name[0] == '.' ? 0 : 1;
        offset += entry->d_reclen;
    }
    return length < 0 ? length : offset;
}

Intercepted const* watching() {
    return observer;
}

std::size_t mostBytes() {
    return observer != nullptr ? observer->mostBytes : static_cast<std::size_t>(-1);
}

}  // namespace

}  // namespace ovra::extra::test

// Each function is defined under the name that it has in the C library, whatever name the headers
// of this platform give it, and for every name that a build for 32 or 64 bits may call.

using ovra::extra::test::mostBytes;
using ovra::extra::test::observed;
using ovra::extra::test::onPath;
using ovra::extra::test::readEntries;
using ovra::extra::test::SystemCall;
using ovra::extra::test::watching;

#define OVRA_OPEN(symbol)                                                                         \
    extern "C" int ovraTest_##symbol(int directory, char const* path, int flags,                  \
                                     ...) asm(#symbol);                                           \
    extern "C" int ovraTest_##symbol(int directory, char const* path, int flags, ...) {           \
        std::va_list arguments;                                                                   \
        va_start(arguments, flags);                                                               \
        mode_t const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;               \
        va_end(arguments);                                                                        \
        return observed(onPath("openat", directory, path, flags, mode), [=] {                     \
            return nextFunction<int(int, char const*, int, ...)>(#symbol)(directory, path, flags, \
                                                                          mode);                  \
        });                                                                                       \
    }

OVRA_OPEN(openat)
OVRA_OPEN(openat64)

#define OVRA_STATUS_BELOW(symbol)                                                                \
    extern "C" int ovraTest_##symbol(int directory, char const* path, void* status,              \
                                     int flags) asm(#symbol);                                    \
    extern "C" int ovraTest_##symbol(int directory, char const* path, void* status, int flags) { \
        return observed(onPath("fstatat", directory, path, flags), [=] {                         \
            return nextFunction<int(int, char const*, void*, int)>(#symbol)(directory, path,     \
                                                                            status, flags);      \
        });                                                                                      \
    }

OVRA_STATUS_BELOW(fstatat)
OVRA_STATUS_BELOW(fstatat64)
OVRA_STATUS_BELOW(__fstatat64_time64)

extern "C" int ovraTest_statx(int directory, char const* path, int flags, unsigned int mask,
                              void* status) asm("statx");
extern "C" int ovraTest_statx(int directory, char const* path, int flags, unsigned int mask,
                              void* status) {
    return observed(onPath("statx", directory, path, flags), [=, observer = watching()] {
        int const result = nextFunction<int(int, char const*, int, unsigned int, void*)>("statx")(
            directory, path, flags, mask, status);
        if (observer != nullptr && observer->hidesMounts) {
            static_cast<struct statx*>(status)->stx_attributes = 0;
        }
        // A system need not say what nobody has asked for.
        bool const isUnasked = (mask & STATX_INO) == 0;
        if (observer != nullptr && (observer->sharesNumbers || isUnasked)) {
            static_cast<struct statx*>(status)->stx_ino = 1;
        }
        return result;
    });
}

extern "C" int ovraTest_unlinkat(int directory, char const* path, int flags) asm("unlinkat");
extern "C" int ovraTest_unlinkat(int directory, char const* path, int flags) {
    return observed(onPath("unlinkat", directory, path, flags), [=] {
        return nextFunction<int(int, char const*, int)>("unlinkat")(directory, path, flags);
    });
}

extern "C" ssize_t ovraTest_readlinkat(int directory, char const* path, char* text,
                                       std::size_t size) asm("readlinkat");
extern "C" ssize_t ovraTest_readlinkat(int directory, char const* path, char* text,
                                       std::size_t size) {
    return observed(onPath("readlinkat", directory, path), [=] {
        return nextFunction<ssize_t(int, char const*, char*, std::size_t)>("readlinkat")(
            directory, path, text, size);
    });
}

extern "C" int ovraTest_renameat(int from, char const* path, int to,
                                 char const* newPath) asm("renameat");
extern "C" int ovraTest_renameat(int from, char const* path, int to, char const* newPath) {
    SystemCall call = onPath("renameat", from, path);
    call.newPath = newPath;
    return observed(call, [=] {
        return nextFunction<int(int, char const*, int, char const*)>("renameat")(from, path, to,
                                                                                 newPath);
    });
}

extern "C" ssize_t ovraTest_getdents64(int directory, void* buffer,
                                       std::size_t size) asm("getdents64");
extern "C" ssize_t ovraTest_getdents64(int directory, void* buffer, std::size_t size) {
    return observed(onPath("getdents64", directory, nullptr), [=, observer = watching()] {
        return readEntries(observer, directory, buffer, size);
    });
}

extern "C" ssize_t ovraTest_write(int descriptor, void const* bytes,
                                  std::size_t count) asm("write");
extern "C" ssize_t ovraTest_write(int descriptor, void const* bytes, std::size_t count) {
    count = std::min(count, mostBytes());
    SystemCall call = onPath("write", descriptor, nullptr);
    call.bytes.assign(static_cast<char const*>(bytes), count);
    return observed(call, [=] {
        return nextFunction<ssize_t(int, void const*, std::size_t)>("write")(descriptor, bytes,
                                                                             count);
    });
}

extern "C" int ovraTest_fchmod(int descriptor, mode_t mode) asm("fchmod");
extern "C" int ovraTest_fchmod(int descriptor, mode_t mode) {
    return observed(onPath("fchmod", descriptor, nullptr, 0, mode),
                    [=] { return nextFunction<int(int, mode_t)>("fchmod")(descriptor, mode); });
}

extern "C" int ovraTest_fchown(int descriptor, uid_t user, gid_t group) asm("fchown");
extern "C" int ovraTest_fchown(int descriptor, uid_t user, gid_t group) {
    SystemCall call = onPath("fchown", descriptor, nullptr);
    call.user = user;
    call.group = group;
    return observed(call, [=] {
        return nextFunction<int(int, uid_t, gid_t)>("fchown")(descriptor, user, group);
    });
}

extern "C" int ovraTest_flock(int descriptor, int operation) asm("flock");
extern "C" int ovraTest_flock(int descriptor, int operation) {
    return observed(onPath("flock", descriptor, nullptr, operation),
                    [=] { return nextFunction<int(int, int)>("flock")(descriptor, operation); });
}

#define OVRA_ON_DESCRIPTOR(symbol)                                                    \
    extern "C" int ovraTest_##symbol(int descriptor) asm(#symbol);                    \
    extern "C" int ovraTest_##symbol(int descriptor) {                                \
        return observed(onPath(#symbol, descriptor, nullptr),                         \
                        [=] { return nextFunction<int(int)>(#symbol)(descriptor); }); \
    }

OVRA_ON_DESCRIPTOR(fsync)
OVRA_ON_DESCRIPTOR(fdatasync)

// Closes even when it fails, as the system does.
extern "C" int ovraTest_close(int descriptor) asm("close");
extern "C" int ovraTest_close(int descriptor) {
    int const result = nextFunction<int(int)>("close")(descriptor);
    int const verdict = observed(onPath("close", descriptor, nullptr), [=] { return result; });
    return verdict;
}

// Whoever is not observed may call it before anything else can be called.
#define OVRA_CLOCK(symbol)                                                                   \
    extern "C" int ovraTest_##symbol(clockid_t clock, void* time) asm(#symbol);              \
    extern "C" __attribute__((no_sanitize("thread"))) int ovraTest_##symbol(clockid_t clock, \
                                                                            void* time) {    \
        static auto* const real = nextFunction<int(clockid_t, void*)>(#symbol);              \
        return watching() == nullptr ? real(clock, time)                                     \
                                     : observed(onPath("clock_gettime", -1, nullptr),        \
                                                [=] { return real(clock, time); });          \
    }

OVRA_CLOCK(clock_gettime)
#ifndef __LP64__
OVRA_CLOCK(__clock_gettime64)
#endif
