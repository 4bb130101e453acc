#include <tests/support/ThreadCalls.h>

#include <sched.h>

#include <atomic>
#include <new>
#include <utility>

#include <tests/support/NextFunction.h>

// The runtime of a sanitizer makes some of these calls before it can note accesses.
#define INTERPOSED                                    \
    extern "C" __attribute__((visibility("default"))) \
    __attribute__((no_sanitize("thread"), no_sanitize("address")))

namespace ovra::test {

namespace {

std::atomic<ThreadCalls*> installed{nullptr};
thread_local bool insideHook = false;

class HookScope {
public:
    HookScope() { insideHook = true; }
    HookScope(HookScope const&) = delete;
    HookScope& operator=(HookScope const&) = delete;
    ~HookScope() { insideHook = false; }
};

// The hook's answer; 0, or nothing, if there is no such hook.
template <typename Answer, typename... Parameters, typename... Arguments>
__attribute__((no_sanitize("thread"), no_sanitize("address"))) Answer ask(
    std::function<Answer(Parameters...)> ThreadCalls::*hook, Arguments... arguments) {
    auto* const calls = installed.load();
    if (calls == nullptr || insideHook || !(calls->*hook)) {
        return Answer();
    }
    HookScope const scope;
    return (calls->*hook)(arguments...);
}

NextFunction<int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*)> nextCreate(
    "pthread_create");
NextFunction<int(pthread_t, void**)> nextJoin("pthread_join");
NextFunction<int(pthread_t)> nextDetach("pthread_detach");
NextFunction<int(pthread_mutex_t*)> nextLock("pthread_mutex_lock");
NextFunction<int(pthread_mutex_t*)> nextUnlock("pthread_mutex_unlock");
NextFunction<int(pthread_cond_t*, pthread_mutex_t*)> nextWait("pthread_cond_wait");
NextFunction<int(pthread_cond_t*)> nextSignal("pthread_cond_signal");
NextFunction<int(pthread_cond_t*)> nextBroadcast("pthread_cond_broadcast");
NextFunction<int()> nextYield("sched_yield");
NextFunction<int(sem_t*)> nextSemaphoreWait("sem_wait");
NextFunction<int(sem_t*)> nextSemaphorePost("sem_post");

}  // namespace

ThreadCalls::~ThreadCalls() {
    installed = nullptr;
}

void ThreadCalls::install() {
    installed = this;
}

std::vector<pthread_mutex_t*> mutexesLockedBy(std::function<void()> const& action) {
    std::vector<pthread_mutex_t*> result;
    pthread_t const self = pthread_self();
    ThreadCalls calls;
    calls.onLock = [&](pthread_mutex_t* mutex) {
        if (pthread_equal(self, pthread_self()) != 0) {
            result.push_back(mutex);
        }
        return 0;
    };
    calls.install();
    action();
    return result;
}

bool isLocked(pthread_mutex_t* mutex) {
    if (pthread_mutex_trylock(mutex) != 0) {
        return true;
    }
    pthread_mutex_unlock(mutex);
    return false;
}

}  // namespace ovra::test

using ovra::test::ThreadCalls;

INTERPOSED int pthread_create(pthread_t* thread, pthread_attr_t const* attributes,
                              void* (*start)(void*), void* argument) {
    if (int const error = ovra::test::ask(&ThreadCalls::onCreate)) {
        return error;
    }
    int const error = ovra::test::nextCreate(thread, attributes, start, argument);
    if (error == 0) {
        ovra::test::ask(&ThreadCalls::afterCreate, *thread);
    }
    return error;
}

INTERPOSED int pthread_join(pthread_t thread, void** result) {
    ovra::test::ask(&ThreadCalls::onJoin, thread);
    return ovra::test::nextJoin(thread, result);
}

INTERPOSED int pthread_detach(pthread_t thread) noexcept {
    ovra::test::ask(&ThreadCalls::onDetach, thread);
    return ovra::test::nextDetach(thread);
}

INTERPOSED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    if (int const error = ovra::test::ask(&ThreadCalls::onLock, mutex)) {
        return error;
    }
    return ovra::test::nextLock(mutex);
}

INTERPOSED int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    ovra::test::ask(&ThreadCalls::onUnlock, mutex);
    int const error = ovra::test::nextUnlock(mutex);
    ovra::test::ask(&ThreadCalls::afterUnlock, mutex);
    return error;
}

INTERPOSED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    ovra::test::ask(&ThreadCalls::onWait, condition, mutex);
    return ovra::test::nextWait(condition, mutex);
}

INTERPOSED int sem_wait(sem_t* semaphore) {
    ovra::test::ask(&ThreadCalls::onSemaphoreWait, semaphore);
    return ovra::test::nextSemaphoreWait(semaphore);
}

INTERPOSED int sem_post(sem_t* semaphore) noexcept {
    ovra::test::ask(&ThreadCalls::onSemaphorePost, semaphore);
    return ovra::test::nextSemaphorePost(semaphore);
}

INTERPOSED int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    ovra::test::ask(&ThreadCalls::onSignal, condition);
    return ovra::test::nextSignal(condition);
}

INTERPOSED int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    ovra::test::ask(&ThreadCalls::onBroadcast, condition);
    return ovra::test::nextBroadcast(condition);
}

INTERPOSED int sched_yield() noexcept {
    ovra::test::ask(&ThreadCalls::onYield);
    return ovra::test::nextYield();
}

void* operator new(std::size_t size) {
    bool const fails = ovra::test::ask(&ThreadCalls::onAllocate, size);
    void* const block = fails ? nullptr : std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
