#include <tests/faults/CallFaults.h>

#include <dirent.h>
#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <tests/faults/Interposed.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OVRA_SANITIZER_OWNS_MALLOC 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OVRA_SANITIZER_OWNS_MALLOC 1
#endif
#endif

namespace ovra::faults {

namespace {

constexpr int MOST_CALLS = 4096;
constexpr int MOST_HITS = 256;
constexpr int INTERRUPTIONS = 3;

struct Watch {
    bool isArmed = false;
    bool hasFault = false;
    Fault fault = {};
    bool isStruck = false;
    Call struck = Call::NEW;
    int interruptionsLeft = 0;
    int made = 0;
    int madeOf[CALLS] = {};
    Call calls[MOST_CALLS] = {};
    int hitCount = 0;
    Hit hits[MOST_HITS] = {};
};

thread_local Watch watch;
thread_local sem_t* announcedWaits = nullptr;

std::atomic<long> liveObjects{0};
std::atomic<long> liveBlocks{0};
std::atomic<long> startedThreads{0};
std::atomic<long> joinedThreads{0};
std::atomic<int> loggedLines{0};

}  // namespace

// Counts the call, and says what is to become of it.
UNWATCHED Verdict judge(Call call) {
    Watch& here = watch;
    if (!here.isArmed) {
        return {};
    }
    int const ordinal = ++here.madeOf[static_cast<std::size_t>(call)];
    if (here.made < MOST_CALLS) {
        here.calls[here.made] = call;
    }
    ++here.made;
    if (!here.hasFault) {
        return {};
    }
    if (here.made == here.fault.position) {
        here.isStruck = true;
        here.struck = call;
        here.interruptionsLeft = INTERRUPTIONS;
    } else if (!here.isStruck || here.struck != call || !here.fault.lasting) {
        return {};
    }
    if (here.fault.effect == Effect::INTERRUPT && --here.interruptionsLeft < 0) {
        return {};
    }
    if (here.hitCount < MOST_HITS) {
        here.hits[here.hitCount++] = {call, ordinal};
    }
    return {here.fault.effect, here.fault.error};
}

char const* nameOf(Call call) {
    static char const* const names[CALLS] = {"operator new",
                                             "malloc",
                                             "vasprintf/asprintf",
                                             "lstat",
                                             "stat",
                                             "chmod",
                                             "chown",
                                             "mkdir",
                                             "remove",
                                             "rename",
                                             "symlink",
                                             "opendir",
                                             "readdir",
                                             "closedir",
                                             "open",
                                             "read",
                                             "write",
                                             "lseek",
                                             "close",
                                             "pthread_create",
                                             "pthread_setname_np",
                                             "pthread_mutex_lock",
                                             "pthread_cond_wait",
                                             "readlinkat",
                                             "fsync",
                                             "ftruncate",
                                             "flock",
                                             "statvfs"};
    return names[static_cast<std::size_t>(call)];
}

std::vector<int> const& errorsOf(Call call) {
    static std::vector<int> const errors[CALLS] = {
        /* NEW      */ {ENOMEM},
        /* MALLOC   */ {ENOMEM},
        /* FORMAT   */ {ENOMEM, EILSEQ, EOVERFLOW},
        /* LSTAT    */
        {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW},
        /* STAT     */
        {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW},
        /* CHMOD    */
        {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS},
        /* CHOWN    */
        {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS},
        /* MKDIR    */
        {EACCES, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM,
         ENOSPC, ENOTDIR, EPERM, EROFS},
        /* REMOVE   */
        {EACCES, EBUSY, EFAULT, EINVAL, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR,
         ENOTEMPTY, EPERM, EROFS},
        /* RENAME   */
        {EACCES, EBUSY, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, EISDIR, ELOOP, EMLINK, ENAMETOOLONG,
         ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY, EPERM, EROFS, EXDEV},
        /* SYMLINK  */
        {EACCES, EDQUOT, EEXIST, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR,
         EPERM, EROFS},
        /* OPENDIR  */ {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR},
        /* READDIR  */ {EBADF, EFAULT, EINVAL, EIO, ENOENT, EOVERFLOW},
        /* CLOSEDIR */ {EBADF, EINTR, EIO},
        /* OPEN     */
        {EACCES, EBUSY,   EDQUOT, EEXIST,       EFAULT, EFBIG,  EINTR,  EINVAL,
         EISDIR, ELOOP,   EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM,
         ENOSPC, ENOTDIR, ENXIO,  EOVERFLOW,    EPERM,  EROFS,  ETXTBSY},
        /* READ     */ {EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR},
        /* WRITE    */ {EAGAIN, EBADF, EDQUOT, EFAULT, EFBIG, EINVAL, EIO, ENOSPC, EPERM, EPIPE},
        /* SEEK     */ {EBADF, EINVAL, ENXIO, EOVERFLOW, ESPIPE},
        /* CLOSE    */ {EBADF, EDQUOT, EINTR, EIO, ENOSPC},
        /* THREAD   */ {EAGAIN, EINVAL, EPERM},
        /* NAME     */ {ERANGE, ENOENT, EACCES},
        /* LOCK     */ {EAGAIN, EDEADLK, EINVAL, ENOTRECOVERABLE},
        /* WAIT     */ {EINVAL, EPERM},
        /* READLINK */ {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR},
        /* SYNC     */ {EBADF, EDQUOT, EINTR, EINVAL, EIO, ENOSPC, EROFS},
        /* TRUNCATE */ {EBADF, EFBIG, EINVAL, EIO, EPERM, EROFS},
        /* FLOCK    */ {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK},
        /* SPACE    */
        {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSYS, ENOTDIR, EOVERFLOW}};
    return errors[static_cast<std::size_t>(call)];
}

void arm(Fault const* fault) {
    Watch& here = watch;
    here.hasFault = fault != nullptr;
    if (fault != nullptr) {
        here.fault = *fault;
    }
    here.isStruck = false;
    here.made = 0;
    for (int& count : here.madeOf) {
        count = 0;
    }
    here.hitCount = 0;
    here.isArmed = true;
}

void disarm() {
    watch.isArmed = false;
}

std::vector<Call> callsMade() {
    int const kept = std::min(watch.made, MOST_CALLS);
    return std::vector<Call>(watch.calls, watch.calls + kept);
}

std::vector<Hit> hits() {
    return std::vector<Hit>(watch.hits, watch.hits + watch.hitCount);
}

bool hasStruck() {
    return watch.hitCount > 0;
}

Holdings holdings() {
    Holdings now = {liveObjects, liveBlocks, startedThreads - joinedThreads, 0};
    DIR* const descriptors = opendir("/proc/self/fd");
    while (readdir(descriptors) != nullptr) {
        ++now.descriptors;
    }
    closedir(descriptors);
    now.descriptors -= 3;  // ".", ".." and the directory's own
    return now;
}

long threadsStarted() {
    return startedThreads;
}

void announceWaits(sem_t* waits) {
    announcedWaits = waits;
}

int systemLogLines() {
    return loggedLines;
}

}  // namespace ovra::faults

using namespace ovra::faults;

INTERPOSED int pthread_create(pthread_t* thread, pthread_attr_t const* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    static NextFunction<int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*)> next(
        "pthread_create");
    if (Verdict const verdict = judge(Call::THREAD); verdict.fails()) {
        return verdict.error;
    }
    int const error = next(thread, attributes, start, argument);
    if (error == 0) {
        ++startedThreads;
    }
    return error;
}

INTERPOSED int pthread_join(pthread_t thread, void** result) {
    static NextFunction<int(pthread_t, void**)> next("pthread_join");
    int const error = next(thread, result);
    if (error == 0) {
        ++joinedThreads;
    }
    return error;
}

INTERPOSED int pthread_setname_np(pthread_t thread, char const* name) noexcept {
    OVRA_HAND_ON(Call::NAME, return verdict.error, pthread_setname_np, int(pthread_t, char const*),
                 thread, name);
}

INTERPOSED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    OVRA_HAND_ON(Call::LOCK, return verdict.error, pthread_mutex_lock, int(pthread_mutex_t*),
                 mutex);
}

INTERPOSED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (announcedWaits != nullptr) {
        sem_post(announcedWaits);
    }
    OVRA_HAND_ON(Call::WAIT, return verdict.error, pthread_cond_wait,
                 int(pthread_cond_t*, pthread_mutex_t*), condition, mutex);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

UNWATCHED int formatText(char** text, char const* format, std::va_list arguments) {
    static NextFunction<int(char**, char const*, std::va_list)> next("vasprintf");
    if (Verdict const verdict = judge(Call::FORMAT); verdict.fails()) {
        return failed(verdict.error);
    }
    return next(text, format, arguments);
}

}  // namespace

// Which of the variants the library calls depends on how it was built.

INTERPOSED int vasprintf(char** text, char const* format, std::va_list arguments) noexcept {
    return formatText(text, format, arguments);
}

INTERPOSED int __vasprintf_chk(char** text, int, char const* format,
                               std::va_list arguments) noexcept {
    return formatText(text, format, arguments);
}

INTERPOSED int asprintf(char** text, char const* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    int const length = formatText(text, format, arguments);
    va_end(arguments);
    return length;
}

INTERPOSED int __asprintf_chk(char** text, int, char const* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    int const length = formatText(text, format, arguments);
    va_end(arguments);
    return length;
}

#pragma GCC diagnostic pop

INTERPOSED void syslog(int, char const*, ...) {
    ++loggedLines;
}

INTERPOSED void __syslog_chk(int, int, char const*, ...) {
    ++loggedLines;
}

#ifndef OVRA_SANITIZER_OWNS_MALLOC

extern "C" void* __libc_malloc(std::size_t size) noexcept;
extern "C" void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
extern "C" void* __libc_realloc(void* memory, std::size_t size) noexcept;
extern "C" void __libc_free(void* memory) noexcept;

INTERPOSED void* malloc(std::size_t size) noexcept {
    if (Verdict const verdict = judge(Call::MALLOC); verdict.fails()) {
        OVRA_OR_NULL();
    }
    void* const memory = __libc_malloc(size);
    if (memory != nullptr) {
        ++liveBlocks;
    }
    return memory;
}

INTERPOSED void* calloc(std::size_t count, std::size_t size) noexcept {
    if (Verdict const verdict = judge(Call::MALLOC); verdict.fails()) {
        OVRA_OR_NULL();
    }
    void* const memory = __libc_calloc(count, size);
    if (memory != nullptr) {
        ++liveBlocks;
    }
    return memory;
}

INTERPOSED void* realloc(void* memory, std::size_t size) noexcept {
    if (Verdict const verdict = judge(Call::MALLOC); verdict.fails()) {
        OVRA_OR_NULL();
    }
    void* const moved = __libc_realloc(memory, size);
    if (memory == nullptr && moved != nullptr) {
        ++liveBlocks;
    } else if (memory != nullptr && moved == nullptr && size == 0) {
        --liveBlocks;
    }
    return moved;
}

INTERPOSED void free(void* memory) noexcept {
    if (memory != nullptr) {
        --liveBlocks;
    }
    __libc_free(memory);
}

#define OVRA_TAKE __libc_malloc
#define OVRA_GIVE __libc_free

#else

#define OVRA_TAKE std::malloc
#define OVRA_GIVE std::free

#endif

namespace {

UNWATCHED void* make(std::size_t size) noexcept {
    if (judge(Call::NEW).fails()) {
        return nullptr;
    }
    void* const memory = OVRA_TAKE(size != 0 ? size : 1);
    if (memory != nullptr) {
        ++liveObjects;
    }
    return memory;
}

UNWATCHED void* makeOrThrow(std::size_t size) {
    if (void* const memory = make(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

UNWATCHED void unmake(void* memory) noexcept {
    if (memory != nullptr) {
        --liveObjects;
        OVRA_GIVE(memory);
    }
}

}  // namespace

UNWATCHED void* operator new(std::size_t size) {
    return makeOrThrow(size);
}

UNWATCHED void* operator new[](std::size_t size) {
    return makeOrThrow(size);
}

UNWATCHED void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return make(size);
}

UNWATCHED void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    return make(size);
}

UNWATCHED void operator delete(void* memory) noexcept {
    unmake(memory);
}

UNWATCHED void operator delete[](void* memory) noexcept {
    unmake(memory);
}

UNWATCHED void operator delete(void* memory, std::size_t) noexcept {
    unmake(memory);
}

UNWATCHED void operator delete[](void* memory, std::size_t) noexcept {
    unmake(memory);
}

UNWATCHED void operator delete(void* memory, std::nothrow_t const&) noexcept {
    unmake(memory);
}

UNWATCHED void operator delete[](void* memory, std::nothrow_t const&) noexcept {
    unmake(memory);
}
