#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

#include <sys/types.h>

// What the sources under test use in place of the standard library's primitives. Each of these is
// an object of the checker, which decides what a thread reads and which thread goes on.
//
// The checker's own headers are seen by Model.cpp alone.

namespace model {

/// Room for an object of the checker.
template <std::size_t SIZE>
struct alignas(8) Room {
    unsigned char bytes[SIZE];
};

/// An object of the checker. One that lives longer than a run is made again for each run.
class Made {
public:
    Made(Made const&) = delete;
    Made& operator=(Made const&) = delete;

    static void makeGlobals();
    static void destroyGlobals();

protected:
    Made();
    ~Made() = default;
    virtual void make() = 0;
    virtual void destroy() = 0;
    bool const isGlobal;

private:
    Made* const nextGlobal;
};

/// An atomic word.
class Word final : Made {
public:
    explicit Word(std::uint64_t initial);
    ~Word();

    std::uint64_t load(std::memory_order order) const;
    void store(std::uint64_t value, std::memory_order order);
    std::uint64_t exchange(std::uint64_t value, std::memory_order order);
    std::uint64_t fetchAdd(std::uint64_t value, std::memory_order order);
    std::uint64_t fetchSub(std::uint64_t value, std::memory_order order);
    std::uint64_t fetchOr(std::uint64_t value, std::memory_order order);
    bool compareExchange(bool isWeak, std::uint64_t& expected, std::uint64_t desired,
                         std::memory_order order, std::memory_order failureOrder);
    /// `futex()`: waits, unless the value is another one.
    void waitWhile(std::uint64_t value);
    void wakeOne();

private:
    void make() override;
    void destroy() override;

    Room<192> room;
    std::uint64_t const initial;
};

/// Sees every look at a plain variable, and every change: two that are not ordered are a race.
class Race final : Made {
public:
    Race();
    ~Race();

    void read() const;
    void write();

private:
    void make() override;
    void destroy() override;

    Room<64> room;
};

/// A variable that only one thread at a time may use, unless all look.
template <typename T>
class plain {
public:
    explicit plain(T initial = T()) : value(std::move(initial)) {}
    template <typename U = T, typename = std::enable_if_t<std::is_pointer_v<U>>>
    plain(std::nullptr_t) : value(nullptr) {}
    plain(plain const& other) : value(other.get()) {}
    plain& operator=(plain const& other) { return *this = other.get(); }
    plain& operator=(T const& newValue) {
        race.write();
        value = newValue;
        return *this;
    }
    operator T const&() const { return get(); }
    T const& operator->() const { return get(); }
    T load(std::memory_order) const { return get(); }
    void store(T newValue, std::memory_order) { *this = newValue; }
    plain& operator++() { return *this = get() + 1; }
    plain& operator--() { return *this = get() - 1; }
    T operator++(int) {
        T before = get();
        *this = before + 1;
        return before;
    }

private:
    T const& get() const {
        race.read();
        return value;
    }

    Race race;
    T value;
};

constexpr std::memory_order failureOrderOf(std::memory_order order) {
    return order == std::memory_order_release   ? std::memory_order_relaxed
           : order == std::memory_order_acq_rel ? std::memory_order_acquire
                                                : order;
}

/// The order of all accesses to an atomic that name none: sequential consistency, unless a fault
/// makes it acquire and release, or relaxed. By the number of the atomic.
inline std::memory_order unnamedOrders[16];

template <typename T, int NUMBER = 0>
class atomic {
public:
    static constexpr bool is_always_lock_free = std::atomic<T>::is_always_lock_free;

    atomic(T initial) : word(bits(initial)) {}
    T load(std::memory_order order = loadOrder()) const { return value(word.load(order)); }
    void store(T desired, std::memory_order order = storeOrder()) {
        word.store(bits(desired), order);
    }
    T exchange(T desired, std::memory_order order = unnamedOrder()) {
        return value(word.exchange(bits(desired), order));
    }
    T fetch_add(T much, std::memory_order order = unnamedOrder()) {
        return value(word.fetchAdd(bits(much), order));
    }
    T fetch_sub(T much, std::memory_order order = unnamedOrder()) {
        return value(word.fetchSub(bits(much), order));
    }
    T fetch_or(T set, std::memory_order order = unnamedOrder()) {
        return value(word.fetchOr(bits(set), order));
    }
    bool compare_exchange_weak(T& expected, T desired, std::memory_order order = unnamedOrder()) {
        return compareExchange(true, expected, desired, order, failureOrderOf(order));
    }
    bool compare_exchange_weak(T& expected, T desired, std::memory_order order,
                               std::memory_order failureOrder) {
        return compareExchange(true, expected, desired, order, failureOrder);
    }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order order = unnamedOrder()) {
        return compareExchange(false, expected, desired, order, failureOrderOf(order));
    }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order order,
                                 std::memory_order failureOrder) {
        return compareExchange(false, expected, desired, order, failureOrder);
    }
    operator T() const { return load(); }
    T operator=(T desired) {
        store(desired);
        return desired;
    }
    T operator++() { return static_cast<T>(fetch_add(1) + 1); }
    T operator--() { return static_cast<T>(fetch_sub(1) - 1); }
    T operator|=(T set) { return static_cast<T>(fetch_or(set) | set); }

    void waitWhile(T seen) { word.waitWhile(bits(seen)); }
    void wakeOne() { word.wakeOne(); }

private:
    static std::memory_order unnamedOrder() { return unnamedOrders[NUMBER]; }
    static std::memory_order loadOrder() {
        return unnamedOrder() == std::memory_order_acq_rel ? std::memory_order_acquire
                                                           : unnamedOrder();
    }
    static std::memory_order storeOrder() {
        return unnamedOrder() == std::memory_order_acq_rel ? std::memory_order_release
                                                           : unnamedOrder();
    }
    static std::uint64_t bits(T from) {
        std::uint64_t result = 0;
        std::memcpy(&result, &from, sizeof from);
        return result;
    }
    static T value(std::uint64_t from) {
        T result;
        std::memcpy(&result, &from, sizeof result);
        return result;
    }
    bool compareExchange(bool isWeak, T& expected, T desired, std::memory_order order,
                         std::memory_order failureOrder) {
        std::uint64_t seen = bits(expected);
        bool const done = word.compareExchange(isWeak, seen, bits(desired), order, failureOrder);
        expected = value(seen);
        return done;
    }

    Word word;
};

void atomic_thread_fence(std::memory_order order);
void yield();

class mutex {
public:
    mutex();
    mutex(mutex const&) = delete;
    mutex& operator=(mutex const&) = delete;
    ~mutex();

    void lock();
    void unlock();

private:
    Race use;  // Ends before the mutex does.
    Room<64> room;
};

class condition_variable {
public:
    condition_variable();
    condition_variable(condition_variable const&) = delete;
    condition_variable& operator=(condition_variable const&) = delete;
    ~condition_variable();

    void wait(std::unique_lock<mutex>& lock);
    void notify_one();
    void notify_all();

private:
    Room<64> room;
};

class thread {
public:
    thread() = default;
    template <typename Object>
    thread(void (Object::*run)(), Object* object) {
        start([run, object] { (object->*run)(); });
    }
    thread(thread&& other) noexcept : state(std::exchange(other.state, nullptr)) {}
    thread& operator=(thread&& other) noexcept {
        std::swap(state, other.state);
        return *this;
    }
    ~thread();

    bool joinable() const { return state != nullptr; }
    void join();

private:
    struct State;
    void start(std::function<void()> const& run);

    State* state = nullptr;
};

/// Made by `sem_init()`, and destroyed with the run, as nobody destroys the library's.
struct Semaphore;
struct sem_t {
    Semaphore* semaphore;
};
int sem_init(sem_t* semaphore, int, unsigned int value);
int sem_wait(sem_t* semaphore);
int sem_post(sem_t* semaphore);

/// Adds to `written()`, which is empty when a run begins.
ssize_t write(int, void const* bytes, std::size_t count);
std::string& written();

/// What a scenario promises. A false one ends the run.
void expect(bool condition, char const* promise);

}  // namespace model

#include "SharedPtr.h"
