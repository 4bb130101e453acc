// The calls that work on descriptors, or below an open directory. For executables whose code under
// test makes such calls.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdarg>

#include <tests/faults/Interposed.h>

using namespace ovra::faults;

// Fails with -1 and errno, or hands the call on.
#define OVRA_OR_FAIL(call, function, type, ...) \
    OVRA_HAND_ON(call, return failed(verdict.error), function, type, __VA_ARGS__)

#define OVRA_OPEN_BELOW(function)                                                               \
    INTERPOSED int function(int directory, char const* path, int flags, ...) {                  \
        std::va_list arguments;                                                                 \
        va_start(arguments, flags);                                                             \
        unsigned int const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned int) : 0; \
        va_end(arguments);                                                                      \
        OVRA_OR_FAIL(Call::OPEN, function, int(int, char const*, int, ...), directory, path,    \
                     flags, mode);                                                              \
    }

OVRA_OPEN_BELOW(openat)
OVRA_OPEN_BELOW(openat64)

#define OVRA_STATUS(call, function, type)                                 \
    INTERPOSED int function(int descriptor, type status) noexcept {       \
        OVRA_OR_FAIL(call, function, int(int, type), descriptor, status); \
    }

OVRA_STATUS(Call::STAT, fstat, struct stat*)
OVRA_STATUS(Call::STAT, fstat64, struct stat64*)
OVRA_STATUS(Call::STAT, __fstat64_time64, void*)
OVRA_STATUS(Call::CHMOD, fchmod, mode_t)
OVRA_STATUS(Call::FLOCK, flock, int)
OVRA_STATUS(Call::TRUNCATE, ftruncate, off_t)
OVRA_STATUS(Call::TRUNCATE, ftruncate64, off64_t)

INTERPOSED int statx(int directory, char const* path, int flags, unsigned int mask,
                     struct statx* status) noexcept {
    OVRA_OR_FAIL(Call::STAT, statx, int(int, char const*, int, unsigned int, struct statx*),
                 directory, path, flags, mask, status);
}

INTERPOSED int fchown(int descriptor, uid_t user, gid_t group) noexcept {
    OVRA_OR_FAIL(Call::CHOWN, fchown, int(int, uid_t, gid_t), descriptor, user, group);
}

INTERPOSED int renameat(int from, char const* name, int to, char const* newName) noexcept {
    OVRA_OR_FAIL(Call::RENAME, renameat, int(int, char const*, int, char const*), from, name, to,
                 newName);
}

INTERPOSED ssize_t readlinkat(int directory, char const* path, char* text,
                              std::size_t size) noexcept {
    OVRA_OR_FAIL(Call::READLINK, readlinkat, ssize_t(int, char const*, char*, std::size_t),
                 directory, path, text, size);
}

INTERPOSED ssize_t getdents64(int directory, void* buffer, std::size_t size) noexcept {
    OVRA_OR_FAIL(Call::READDIR, getdents64, ssize_t(int, void*, std::size_t), directory, buffer,
                 size);
}

INTERPOSED int fsync(int descriptor) {
    OVRA_OR_FAIL(Call::SYNC, fsync, int(int), descriptor);
}

#define OVRA_SPACE(function, type)                                                 \
    INTERPOSED int function(char const* path, type* space) noexcept {              \
        OVRA_OR_FAIL(Call::SPACE, function, int(char const*, type*), path, space); \
    }

OVRA_SPACE(statvfs, struct statvfs)
OVRA_SPACE(statvfs64, struct statvfs64)

#define OVRA_WRITE_AT(function, type)                                                            \
    INTERPOSED ssize_t function(int descriptor, void const* bytes, std::size_t count, type at) { \
        static NextFunction<ssize_t(int, void const*, std::size_t, type)> next(#function);       \
        if (Verdict const verdict = judge(Call::WRITE); verdict.fails()) {                       \
            if (verdict.effect != Effect::SHORTEN) {                                             \
                return failed(verdict.error);                                                    \
            }                                                                                    \
            count = count != 0 ? 1 : 0;                                                          \
        }                                                                                        \
        return next(descriptor, bytes, count, at);                                               \
    }

OVRA_WRITE_AT(pwrite, off_t)
OVRA_WRITE_AT(pwrite64, off64_t)
