#include "Model.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "Run.h"

namespace model {

namespace {

Made* globals = nullptr;

template <typename Object, std::size_t SIZE>
Object& in(Room<SIZE> const& room) {
    static_assert(sizeof(Object) <= SIZE);
    return *reinterpret_cast<Object*>(const_cast<Room<SIZE>&>(room).bytes);
}

rl::memory_order orderOf(std::memory_order order) {
    switch (order) {
        case std::memory_order_relaxed:
            return rl::mo_relaxed;
        case std::memory_order_acquire:
            return rl::mo_acquire;
        case std::memory_order_release:
            return rl::mo_release;
        case std::memory_order_acq_rel:
            return rl::mo_acq_rel;
        case std::memory_order_seq_cst:
            break;
    }
    return rl::mo_seq_cst;
}

using AtomicWord = rl::atomic<std::uint64_t>;
using Plain = rl::var<int>;
using Mutex = rl::mutex;
using Condition = rl::condition_variable;

struct Kernel;
Kernel* kernel = nullptr;

}  // namespace

struct Semaphore {
    Semaphore(unsigned int value) { made.init(false, value, 1000, $); }
    ~Semaphore() { made.deinit($); }

    rl::semaphore<Semaphore> made;
};

// What stands for the system of one run.
namespace {
struct Kernel {
    rl::mutex mutex;
    rl::condition_variable condition;
    std::vector<std::unique_ptr<Semaphore>> semaphores;
    std::string written;
};
}  // namespace

struct thread::State {
    rl::dyn_thread thread;
    std::function<void()> run;
};

EhGuard::EhGuard() {
    std::memcpy(kept, abi::__cxa_get_globals(), sizeof kept);
}
EhGuard::~EhGuard() {
    std::memcpy(abi::__cxa_get_globals(), kept, sizeof kept);
}
void EhGuard::begin() {
    std::memset(abi::__cxa_get_globals(), 0, sizeof(EhGuard::kept));
}

void delayThread() {
    if (rl::ctx().is_random_sched() && rl::rand(2) == 0) {
        for (unsigned int steps = rl::rand(64); steps > 0; --steps) {
            rl::ctx().sched();
        }
    }
}

void beginRun() {
    EhGuard::begin();
    kernel = new Kernel;
    Made::makeGlobals();
}

void endRun() {
    Made::destroyGlobals();
    delete kernel;
    kernel = nullptr;
}

Made::Made() : isGlobal(!rl::is_ctx()), nextGlobal(isGlobal ? globals : nullptr) {
    if (isGlobal) {
        globals = this;
    }
}

void Made::makeGlobals() {
    for (Made* made = globals; made != nullptr; made = made->nextGlobal) {
        made->make();
    }
}

void Made::destroyGlobals() {
    for (Made* made = globals; made != nullptr; made = made->nextGlobal) {
        made->destroy();
    }
}

Word::Word(std::uint64_t first) : initial(first) {
    if (!isGlobal) {
        make();
    }
}

Word::~Word() {
    if (!isGlobal) {
        destroy();
    }
}

void Word::make() {
    new (&room) AtomicWord(initial);
}

void Word::destroy() {
    in<AtomicWord>(room).~AtomicWord();
}

std::uint64_t Word::load(std::memory_order order) const {
    EhGuard const guard;
    return in<AtomicWord>(room).load(orderOf(order), $);
}

void Word::store(std::uint64_t value, std::memory_order order) {
    EhGuard const guard;
    in<AtomicWord>(room).store(value, orderOf(order), $);
}

std::uint64_t Word::exchange(std::uint64_t value, std::memory_order order) {
    EhGuard const guard;
    return in<AtomicWord>(room).exchange(value, orderOf(order), $);
}

std::uint64_t Word::fetchAdd(std::uint64_t value, std::memory_order order) {
    EhGuard const guard;
    return in<AtomicWord>(room).fetch_add(value, orderOf(order), $);
}

std::uint64_t Word::fetchSub(std::uint64_t value, std::memory_order order) {
    EhGuard const guard;
    return in<AtomicWord>(room).fetch_sub(value, orderOf(order), $);
}

std::uint64_t Word::fetchOr(std::uint64_t value, std::memory_order order) {
    EhGuard const guard;
    return in<AtomicWord>(room).fetch_or(value, orderOf(order), $);
}

bool Word::compareExchange(bool isWeak, std::uint64_t& expected, std::uint64_t desired,
                           std::memory_order order, std::memory_order failureOrder) {
    EhGuard const guard;
    auto& word = in<AtomicWord>(room);
    return isWeak ? word.compare_exchange_weak(expected, desired, orderOf(order), $,
                                               orderOf(failureOrder), $)
                  : word.compare_exchange_strong(expected, desired, orderOf(order), $,
                                                 orderOf(failureOrder), $);
}

void Word::waitWhile(std::uint64_t value) {
    EhGuard const guard;
    kernel->mutex.lock($);
    std::uint64_t current = value;
    // Reads what is there now, not what was there once.
    if (compareExchange(false, current, value, std::memory_order_relaxed,
                        std::memory_order_relaxed)) {
        kernel->condition.wait(kernel->mutex, $);
    }
    kernel->mutex.unlock($);
}

void Word::wakeOne() {
    EhGuard const guard;
    kernel->mutex.lock($);
    kernel->condition.notify_one($);
    kernel->mutex.unlock($);
}

Race::Race() {
    if (!isGlobal) {
        make();
    }
}

Race::~Race() {
    if (!isGlobal) {
        write();
        destroy();
    }
}

void Race::make() {
    new (&room) Plain(0);
}

void Race::destroy() {
    in<Plain>(room).~Plain();
}

void Race::read() const {
    static_cast<void>(in<Plain>(room)($).load());
}

void Race::write() {
    in<Plain>(room)($).store(0);
}

void atomic_thread_fence(std::memory_order order) {
    EhGuard const guard;
    rl::atomic_thread_fence(orderOf(order), $);
}

void yield() {
    EhGuard const guard;
    rl::yield(1, $);
}

mutex::mutex() {
    if (rl::is_ctx()) {
        new (&room) Mutex;
    }
}

mutex::~mutex() {
    if (rl::is_ctx()) {
        in<Mutex>(room).~Mutex();
    }
}

void mutex::lock() {
    EhGuard const guard;
    in<Mutex>(room).lock($);
}

void mutex::unlock() {
    EhGuard const guard;
    use.read();
    in<Mutex>(room).unlock($);
}

condition_variable::condition_variable() {
    new (&room) Condition;
}

condition_variable::~condition_variable() {
    in<Condition>(room).~Condition();
}

void condition_variable::wait(std::unique_lock<mutex>& lock) {
    EhGuard const guard;
    struct Lock {
        void lock(rl::debug_info const&) { mutex.lock(); }
        void unlock(rl::debug_info const&) { mutex.unlock(); }
        model::mutex& mutex;
    } unlocked{*lock.mutex()};
    in<Condition>(room).wait(unlocked, $);
}

void condition_variable::notify_one() {
    EhGuard const guard;
    in<Condition>(room).notify_one($);
}

void condition_variable::notify_all() {
    EhGuard const guard;
    in<Condition>(room).notify_all($);
}

void thread::start(std::function<void()> const& run) {
    EhGuard const guard;
    state = new State;
    state->run = run;
    state->thread.start(
        [](void* started) -> void* {
            EhGuard::begin();
            static_cast<State*>(started)->run();
            return nullptr;
        },
        state);
}

void thread::join() {
    if (!joinable()) {
        throw std::system_error(std::make_error_code(std::errc::invalid_argument));
    }
    EhGuard const guard;
    state->thread.join();
    delete std::exchange(state, nullptr);
}

thread::~thread() {
    expect(!joinable(), "a thread is joined before its object goes");
}

int sem_init(sem_t* semaphore, int, unsigned int value) {
    semaphore->semaphore = new Semaphore(value);
    kernel->semaphores.emplace_back(semaphore->semaphore);
    return 0;
}

int sem_wait(sem_t* semaphore) {
    EhGuard const guard;
    semaphore->semaphore->made.wait(false, false, $);
    return 0;
}

int sem_post(sem_t* semaphore) {
    EhGuard const guard;
    unsigned int before = 0;
    semaphore->semaphore->made.post(1, before, $);
    return 0;
}

ssize_t write(int, void const* bytes, std::size_t count) {
    kernel->written.append(static_cast<char const*>(bytes), count);
    return static_cast<ssize_t>(count);
}

std::string& written() {
    return kernel->written;
}

void expect(bool condition, char const* promise) {
    if (!condition) {
        rl::ctx().fail_test(promise, rl::test_result_user_assert_failed, $);
    }
}

}  // namespace model
