#include <tests/extra/FileCalls.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tests/support/Bounded.h>
#include <tests/support/NextFunction.h>

// The runtime of a sanitizer makes some of these calls before it can record accesses.
#define UNWATCHED __attribute__((no_sanitize("thread"), no_sanitize("address")))
#define INTERPOSED extern "C" __attribute__((visibility("default"))) UNWATCHED

namespace ovra::test {

namespace {

thread_local FileCalls* installed = nullptr;
thread_local long allocated = 0;

// While a hook runs none is installed.
class HookScope {
public:
    HookScope() { installed = nullptr; }
    HookScope(HookScope const&) = delete;
    HookScope& operator=(HookScope const&) = delete;
    ~HookScope() { installed = hidden; }

    FileCalls* const hidden = installed;
};

// Whether the call is to fail; then `errno` says why.
bool fails(FileCall call) {
    if (installed == nullptr) {
        return false;
    }
    HookScope const scope;
    scope.hidden->made.push_back(call);
    int const error = scope.hidden->onCall ? scope.hidden->onCall(call) : 0;
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

UNWATCHED std::int64_t secondsShown() {
    return installed != nullptr ? installed->seconds : -1;
}

bool isWatched() {
    return installed != nullptr;
}

std::size_t shortened(std::size_t count) {
    if (installed == nullptr || !installed->onWrite) {
        return count;
    }
    HookScope const scope;
    return std::min(count, scope.hidden->onWrite(count));
}

}  // namespace

FileCalls::FileCalls() {
    installed = this;
}

FileCalls::~FileCalls() {
    installed = nullptr;
}

int FileCalls::count(FileCall call) const {
    return static_cast<int>(std::count(made.begin(), made.end(), call));
}

char const* nameOf(FileCall call) {
    static char const* const names[FILE_CALLS] = {"open",   "read",  "write", "futimens",
                                                  "stat",   "lstat", "fstat", "rename",
                                                  "unlink", "flock", "sync",  "syncfs"};
    return names[static_cast<int>(call)];
}

long allocations() {
    return allocated;
}

bool countsAllocations() {
    long const before = allocated;
    std::free(std::malloc(1));
    return allocated != before;
}

}  // namespace ovra::test

using namespace ovra::test;

// Hides the function of that name: fails if asked to, or hands on.
#define OVRA_HIDE(call, result, function, parameters, ...)                    \
    INTERPOSED result function parameters {                                   \
        static auto* const real = nextFunction<result parameters>(#function); \
        return fails(call) ? -1 : real(__VA_ARGS__);                          \
    }

OVRA_HIDE(FileCall::STAT, int, stat64, (char const* path, struct stat64* status), path, status)
OVRA_HIDE(FileCall::LSTAT, int, lstat64, (char const* path, struct stat64* status), path, status)
OVRA_HIDE(FileCall::FSTAT, int, fstat64, (int file, struct stat64* status), file, status)
#if __SIZEOF_POINTER__ == 4
OVRA_HIDE(FileCall::STAT, int, __stat64_time64, (char const* path, void* status), path, status)
OVRA_HIDE(FileCall::LSTAT, int, __lstat64_time64, (char const* path, void* status), path, status)
OVRA_HIDE(FileCall::FSTAT, int, __fstat64_time64, (int file, void* status), file, status)
OVRA_HIDE(FileCall::TOUCH, int, __futimens64, (int file, void const* times), file, times)
#endif
OVRA_HIDE(FileCall::TOUCH, int, futimens, (int file, timespec const* times), file, times)
OVRA_HIDE(FileCall::RENAME, int, rename, (char const* from, char const* to), from, to)
OVRA_HIDE(FileCall::UNLINK, int, unlink, (char const* path), path)
OVRA_HIDE(FileCall::LOCK, int, flock, (int file, int operation), file, operation)
OVRA_HIDE(FileCall::READ, ssize_t, pread64, (int file, void* bytes, std::size_t count, off64_t at),
          file, bytes, count, at)

// Both of the C library's types begin with the seconds, in as many bits as `Seconds` has.
#define OVRA_HIDE_CLOCK(function, Time, Seconds)                                  \
    INTERPOSED int function(clockid_t clock, Time* time) noexcept {               \
        static auto* const real = nextFunction<int(clockid_t, Time*)>(#function); \
        int const result = real(clock, time);                                     \
        if (clock == CLOCK_REALTIME && secondsShown() >= 0) {                     \
            auto const seconds = static_cast<Seconds>(secondsShown());            \
            std::memcpy(time, &seconds, sizeof seconds);                          \
        }                                                                         \
        return result;                                                            \
    }

OVRA_HIDE_CLOCK(clock_gettime, timespec, time_t)
#if __SIZEOF_POINTER__ == 4
OVRA_HIDE_CLOCK(__clock_gettime64, void, std::int64_t)
#endif

// A test that counts syncs does not wait for the disk.
#define OVRA_HIDE_SYNC(call, function)                               \
    INTERPOSED int function(int file) {                              \
        static auto* const real = nextFunction<int(int)>(#function); \
        return fails(call) ? -1 : isWatched() ? 0 : real(file);      \
    }

OVRA_HIDE_SYNC(FileCall::SYNC, fdatasync)
OVRA_HIDE_SYNC(FileCall::SYNC, fsync)
OVRA_HIDE_SYNC(FileCall::SYNC_ALL, syncfs)

INTERPOSED int openat64(int directory, char const* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    unsigned int const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned int) : 0;
    va_end(arguments);
    static auto* const real = nextFunction<int(int, char const*, int, ...)>("openat64");
    return fails(FileCall::OPEN) ? -1 : real(directory, path, flags, mode);
}

INTERPOSED ssize_t write(int file, void const* bytes, std::size_t count) {
    static auto* const real = nextFunction<ssize_t(int, void const*, std::size_t)>("write");
    return fails(FileCall::WRITE) ? -1 : real(file, bytes, shortened(count));
}

INTERPOSED ssize_t writev(int file, struct iovec const* pieces, int count) {
    static auto* const real = nextFunction<ssize_t(int, struct iovec const*, int)>("writev");
    if (fails(FileCall::WRITE)) {
        return -1;
    }
    std::vector<iovec> some;
    std::size_t all = 0;
    for (int index = 0; index < count; ++index) {
        all += pieces[index].iov_len;
    }
    std::size_t rest = shortened(all);
    if (rest == all) {
        return real(file, pieces, count);
    }
    for (int index = 0; index < count; ++index) {
        some.push_back({pieces[index].iov_base, std::min(rest, pieces[index].iov_len)});
        rest -= some.back().iov_len;
    }
    return real(file, some.data(), count);
}

// A sanitizer has definitions of its own, which it needs.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)

extern "C" void* __libc_malloc(std::size_t size) noexcept;
extern "C" void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
extern "C" void* __libc_realloc(void* memory, std::size_t size) noexcept;

INTERPOSED void* malloc(std::size_t size) noexcept {
    ++allocated;
    return __libc_malloc(size);
}

INTERPOSED void* calloc(std::size_t count, std::size_t size) noexcept {
    ++allocated;
    return __libc_calloc(count, size);
}

INTERPOSED void* realloc(void* memory, std::size_t size) noexcept {
    ++allocated;
    return __libc_realloc(memory, size);
}

#endif
