// The calls that name an entry by its path, and those that read and write what they opened.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include <tests/faults/Interposed.h>

using namespace ovra::faults;

// A function of a path that gives -1 and sets errno when it fails.
#define OVRA_OF_PATH(call, function, second)                                                       \
    INTERPOSED int function(char const* path, second value) noexcept {                             \
        OVRA_HAND_ON(call, return failed(verdict.error), function, int(char const*, second), path, \
                     value);                                                                       \
    }

OVRA_OF_PATH(Call::LSTAT, lstat, struct stat*)
OVRA_OF_PATH(Call::LSTAT, lstat64, struct stat64*)
OVRA_OF_PATH(Call::LSTAT, __lstat64_time64, void*)
OVRA_OF_PATH(Call::STAT, stat, struct stat*)
OVRA_OF_PATH(Call::STAT, stat64, struct stat64*)
OVRA_OF_PATH(Call::STAT, __stat64_time64, void*)
OVRA_OF_PATH(Call::CHMOD, chmod, mode_t)
OVRA_OF_PATH(Call::MKDIR, mkdir, mode_t)
OVRA_OF_PATH(Call::RENAME, rename, char const*)
OVRA_OF_PATH(Call::SYMLINK, symlink, char const*)

// The same, for a path below an open directory.
#define OVRA_BELOW(call, function)                             \
    OVRA_HAND_ON(call, return failed(verdict.error), function, \
                 int(int, char const*, decltype(value), int), directory, path, value, flags)

INTERPOSED int fstatat(int directory, char const* path, struct stat* value, int flags) noexcept {
    OVRA_BELOW(Call::STAT, fstatat);
}
INTERPOSED int fstatat64(int directory, char const* path, struct stat64* value,
                         int flags) noexcept {
    OVRA_BELOW(Call::STAT, fstatat64);
}
INTERPOSED int __fstatat64_time64(int directory, char const* path, void* value,
                                  int flags) noexcept {
    OVRA_BELOW(Call::STAT, __fstatat64_time64);
}

INTERPOSED int chown(char const* path, uid_t user, gid_t group) noexcept {
    OVRA_HAND_ON(Call::CHOWN, return failed(verdict.error), chown, int(char const*, uid_t, gid_t),
                 path, user, group);
}

INTERPOSED int remove(char const* path) noexcept {
    OVRA_HAND_ON(Call::REMOVE, return failed(verdict.error), remove, int(char const*), path);
}

INTERPOSED int unlinkat(int directory, char const* path, int flags) noexcept {
    OVRA_HAND_ON(Call::REMOVE, return failed(verdict.error), unlinkat, int(int, char const*, int),
                 directory, path, flags);
}

INTERPOSED DIR* opendir(char const* path) {
    OVRA_HAND_ON(Call::OPENDIR, OVRA_OR_NULL(), opendir, DIR * (char const*), path);
}

INTERPOSED struct dirent* readdir(DIR* stream) {
    OVRA_HAND_ON(Call::READDIR, OVRA_OR_NULL(), readdir, struct dirent * (DIR*), stream);
}

INTERPOSED struct dirent64* readdir64(DIR* stream) {
    OVRA_HAND_ON(Call::READDIR, OVRA_OR_NULL(), readdir64, struct dirent64 * (DIR*), stream);
}

INTERPOSED FILE* fopen(char const* path, char const* mode) {
    OVRA_HAND_ON(Call::OPEN, OVRA_OR_NULL(), fopen, FILE * (char const*, char const*), path, mode);
}

INTERPOSED FILE* fopen64(char const* path, char const* mode) {
    OVRA_HAND_ON(Call::OPEN, OVRA_OR_NULL(), fopen64, FILE * (char const*, char const*), path,
                 mode);
}

#define OVRA_OPEN(function)                                                                     \
    INTERPOSED int function(char const* path, int flags, ...) {                                 \
        std::va_list arguments;                                                                 \
        va_start(arguments, flags);                                                             \
        unsigned int const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned int) : 0; \
        va_end(arguments);                                                                      \
        OVRA_HAND_ON(Call::OPEN, return failed(verdict.error), function,                        \
                     int(char const*, int, ...), path, flags, mode);                            \
    }

OVRA_OPEN(open)
OVRA_OPEN(open64)

// These release what they were given even when they fail.
#define OVRA_RELEASE(call, function, type)                       \
    INTERPOSED int function(type opened) {                       \
        static NextFunction<int(type)> next(#function);          \
        Verdict const verdict = judge(call);                     \
        int const result = next(opened);                         \
        return verdict.fails() ? failed(verdict.error) : result; \
    }

OVRA_RELEASE(Call::CLOSEDIR, closedir, DIR*)
OVRA_RELEASE(Call::CLOSE, fclose, FILE*)
OVRA_RELEASE(Call::CLOSE, close, int)

INTERPOSED ssize_t read(int descriptor, void* bytes, std::size_t count) {
    static NextFunction<ssize_t(int, void*, std::size_t)> next("read");
    if (Verdict const verdict = judge(Call::READ); verdict.fails()) {
        if (verdict.effect != Effect::SHORTEN) {
            return failed(verdict.error);
        }
        count = count != 0 ? 1 : 0;
    }
    return next(descriptor, bytes, count);
}

INTERPOSED ssize_t write(int descriptor, void const* bytes, std::size_t count) {
    static NextFunction<ssize_t(int, void const*, std::size_t)> next("write");
    if (Verdict const verdict = judge(Call::WRITE); verdict.fails()) {
        if (verdict.effect != Effect::SHORTEN) {
            return failed(verdict.error);
        }
        count = count != 0 ? 1 : 0;
    }
    return next(descriptor, bytes, count);
}

INTERPOSED ssize_t writev(int descriptor, struct iovec const* pieces, int count) {
    static NextFunction<ssize_t(int, struct iovec const*, int)> next("writev");
    if (Verdict const verdict = judge(Call::WRITE); verdict.fails()) {
        if (verdict.effect != Effect::SHORTEN) {
            return failed(verdict.error);
        }
        struct iovec first = pieces[0];
        if (first.iov_len > 1) {
            first.iov_len = 1;
        }
        return next(descriptor, &first, 1);
    }
    return next(descriptor, pieces, count);
}

#define OVRA_SEEK(function, type)                                                              \
    INTERPOSED type function(int descriptor, type offset, int whence) noexcept {               \
        OVRA_HAND_ON(Call::SEEK, return failed(verdict.error), function, type(int, type, int), \
                     descriptor, offset, whence);                                              \
    }

OVRA_SEEK(lseek, off_t)
OVRA_SEEK(lseek64, off64_t)
