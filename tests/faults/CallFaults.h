#pragma once

#include <semaphore.h>

#include <cstddef>
#include <string>
#include <vector>

namespace ovra::faults {

/// What the library, and the standard library on its behalf, asks of the system.
enum class Call {
    NEW,     // operator new
    MALLOC,  // malloc, calloc and realloc; not under a sanitizer, which owns them
    FORMAT,  // vasprintf, asprintf
    LSTAT,
    STAT,   // stat, fstatat, fstat, statx
    CHMOD,  // chmod, fchmod
    CHOWN,  // chown, fchown
    MKDIR,
    REMOVE,  // remove, unlinkat
    RENAME,  // rename, renameat
    SYMLINK,
    OPENDIR,
    READDIR,  // readdir, getdents64
    CLOSEDIR,
    OPEN,  // fopen, open, openat, and a stream's way to them
    READ,
    WRITE,  // write, writev, pwrite
    SEEK,
    CLOSE,   // fclose, close
    THREAD,  // pthread_create
    NAME,    // pthread_setname_np
    LOCK,    // pthread_mutex_lock
    WAIT,    // pthread_cond_wait
    READLINK,
    SYNC,  // fsync
    TRUNCATE,
    FLOCK,
    SPACE,  // statvfs
};
constexpr std::size_t CALLS = static_cast<std::size_t>(Call::SPACE) + 1;

char const* nameOf(Call call);

/// The errors that the call's manual page lists.
std::vector<int> const& errorsOf(Call call);

/// What becomes of a call.
enum class Effect {
    FAIL,       // fails with an error, or gives nothing
    INTERRUPT,  // a few times EINTR, then the call is made
    SHORTEN,    // one byte is read or written, and one is what the call says
};

struct Fault {
    int position;  // which call of the operation, from 1
    Effect effect;
    int error;
    bool lasting;  // this call only, or from then on all calls of its kind
};

/// A call that a fault has struck: which of its kind it was, from 1.
struct Hit {
    Call call;
    int ordinal;
};

/// Begins to count the calls of this thread, and to strike them if there is a fault. All storage is
/// there already: nothing is allocated by watching.
void arm(Fault const* fault);
/// Ends it. Does nothing if nothing was begun.
void disarm();

/// Of the last time between `arm` and `disarm`; of very many, the first.
std::vector<Call> callsMade();
std::vector<Hit> hits();
bool hasStruck();

/// What the process holds.
struct Holdings {
    long objects;     // from operator new
    long blocks;      // from malloc and its like; always 0 under a sanitizer
    long threads;     // not joined
    int descriptors;  // open

    friend bool operator==(Holdings const& left, Holdings const& right) {
        return left.objects == right.objects && left.blocks == right.blocks &&
               left.threads == right.threads && left.descriptors == right.descriptors;
    }
};
Holdings holdings();
/// Threads that were ever started.
long threadsStarted();

/// From now on this thread posts to `waits` whenever it is about to wait on a condition, with the
/// condition's mutex held. Null ends it.
void announceWaits(sem_t* waits);

/// Lines that reached the system log; none leaves the process.
int systemLogLines();

}  // namespace ovra::faults
