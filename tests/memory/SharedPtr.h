#pragma once

#include <exception>
#include <future>

// Included by Model.h. Shared pointers that count as libstdc++ does, with no more order between
// threads than the standard promises. A pointer that two threads use at the same time is a race.

namespace model {

class Counts {
public:
    Counts() = default;
    Counts(Counts const&) = delete;
    Counts& operator=(Counts const&) = delete;
    virtual ~Counts() = default;

    void share() { used.fetch_add(1, std::memory_order_relaxed); }
    void shareWeakly() { known.fetch_add(1, std::memory_order_relaxed); }
    bool shareIfAlive() {
        long count = used.load(std::memory_order_relaxed);
        do {
            if (count == 0) {
                return false;
            }
        } while (!used.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel,
                                             std::memory_order_relaxed));
        return true;
    }
    void release() {
        if (used.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            destroyObject();
            releaseWeakly();
        }
    }
    void releaseWeakly() {
        if (known.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            destroyThis();
        }
    }

protected:
    virtual void destroyObject() = 0;
    virtual void destroyThis() = 0;

private:
    atomic<long> used{1};
    atomic<long> known{1};
};

template <typename T>
class weak_ptr;

template <typename T>
class shared_ptr {
public:
    shared_ptr(std::nullptr_t = nullptr) {}
    explicit shared_ptr(T* object);
    shared_ptr(T* object, Counts* itsCounts) : pointer(object), counts(itsCounts) {}
    template <typename U>
    shared_ptr(shared_ptr<U> const& owner, T* part) : shared_ptr(part, owner.counts) {
        share();
    }
    shared_ptr(shared_ptr const& other) : shared_ptr(other.look(), other.counts) { share(); }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    shared_ptr(shared_ptr<U> const& other) : shared_ptr(other.look(), other.counts) {
        share();
    }
    shared_ptr(shared_ptr&& other) : shared_ptr(other.take(), nullptr) {
        std::swap(counts, other.counts);
    }
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    shared_ptr(shared_ptr<U>&& other) : shared_ptr(other.take(), nullptr) {
        std::swap(counts, other.counts);
    }
    shared_ptr& operator=(shared_ptr other) {
        swap(other);
        return *this;
    }
    ~shared_ptr() {
        race.write();
        if (counts != nullptr) {
            counts->release();
        }
    }

    void swap(shared_ptr& other) {
        race.write();
        other.race.write();
        std::swap(pointer, other.pointer);
        std::swap(counts, other.counts);
    }
    void reset() { shared_ptr().swap(*this); }
    T* get() const { return look(); }
    T& operator*() const { return *look(); }
    T* operator->() const { return look(); }
    explicit operator bool() const { return look() != nullptr; }
    template <typename U>
    bool operator==(shared_ptr<U> const& other) const {
        return get() == other.get();
    }

private:
    template <typename U>
    friend class shared_ptr;
    template <typename U>
    friend class weak_ptr;

    T* look() const {
        race.read();
        return pointer;
    }
    T* take() {
        race.write();
        return std::exchange(pointer, nullptr);
    }
    void share() const {
        if (counts != nullptr) {
            counts->share();
        }
    }

    Race race;
    T* pointer = nullptr;
    Counts* counts = nullptr;
};

template <typename T>
class weak_ptr {
public:
    weak_ptr() = default;
    weak_ptr(shared_ptr<T> const& other) : pointer(other.look()), counts(other.counts) { share(); }
    weak_ptr(weak_ptr const& other) : pointer(other.look()), counts(other.counts) { share(); }
    weak_ptr& operator=(weak_ptr other) {
        race.write();
        std::swap(pointer, other.pointer);
        std::swap(counts, other.counts);
        return *this;
    }
    ~weak_ptr() {
        race.write();
        if (counts != nullptr) {
            counts->releaseWeakly();
        }
    }

    shared_ptr<T> lock() const {
        T* const object = look();
        return counts != nullptr && counts->shareIfAlive() ? shared_ptr<T>(object, counts)
                                                           : shared_ptr<T>();
    }

private:
    T* look() const {
        race.read();
        return pointer;
    }
    void share() const {
        if (counts != nullptr) {
            counts->shareWeakly();
        }
    }

    Race race;
    T* pointer = nullptr;
    Counts* counts = nullptr;
};

template <typename T>
struct CountsOfPointer : Counts {
    explicit CountsOfPointer(T* pointer) : object(pointer) {}
    void destroyObject() override { delete object; }
    void destroyThis() override { delete this; }

    T* object;
};

template <typename T>
shared_ptr<T>::shared_ptr(T* object) : pointer(object), counts(new CountsOfPointer<T>(object)) {}

template <typename T, typename Allocator>
struct CountsInPlace : Counts {
    template <typename... Parts>
    explicit CountsInPlace(Allocator const& itsAllocator, Parts&&... parts)
        : allocator(itsAllocator), object(new (place) T(std::forward<Parts>(parts)...)) {}
    void destroyObject() override { object->~T(); }
    void destroyThis() override {
        typename Allocator::template rebind<CountsInPlace>::other own(allocator);
        this->~CountsInPlace();
        own.deallocate(this, 1);
    }

    Allocator allocator;
    alignas(T) unsigned char place[sizeof(T)];
    T* object;
};

template <typename T, typename Allocator, typename... Parts>
shared_ptr<T> allocate_shared(Allocator const& allocator, Parts&&... parts) {
    using Block = CountsInPlace<T, Allocator>;
    typename Allocator::template rebind<Block>::other own(allocator);
    Block* const room = own.allocate(1);
    try {
        Block* const block = new (room) Block(allocator, std::forward<Parts>(parts)...);
        return shared_ptr<T>(block->object, block);
    } catch (...) {
        own.deallocate(room, 1);
        throw;
    }
}

template <typename T>
struct PlainAllocator {
    using value_type = T;
    template <typename Other>
    struct rebind {
        using other = PlainAllocator<Other>;
    };
    PlainAllocator() = default;
    template <typename Other>
    explicit PlainAllocator(PlainAllocator<Other> const&) {}
    T* allocate(std::size_t) { return static_cast<T*>(::operator new(sizeof(T))); }
    void deallocate(T* room, std::size_t) { ::operator delete(room); }
};

template <typename T, typename... Parts>
shared_ptr<T> make_shared(Parts&&... parts) {
    return model::allocate_shared<T>(PlainAllocator<T>(), std::forward<Parts>(parts)...);
}

// A future's value, and a promise that hands it over.
template <typename T>
struct Given {
    model::mutex mutex;
    model::condition_variable condition;
    plain<bool> isGiven{false};
    plain<T> value;
};

template <typename T>
class future {
public:
    explicit future(shared_ptr<Given<T>> from) : given(std::move(from)) {}
    T get() {
        std::unique_lock<model::mutex> lock(given->mutex);
        while (!given->isGiven) {
            given->condition.wait(lock);
        }
        return given->value;
    }

private:
    shared_ptr<Given<T>> given;
};

template <typename T>
class promise {
public:
    future<T> get_future() { return future<T>(given); }
    void set_value(T value) {
        std::lock_guard<model::mutex> const lock(given->mutex);
        given->value = value;
        given->isGiven = true;
        given->condition.notify_all();
    }

private:
    shared_ptr<Given<T>> given = make_shared<Given<T>>();
};

/// A promise whose future gives `T()` in place of an exception, and when the promise is broken.
template <typename T>
class BreakablePromise {
public:
    BreakablePromise() = default;
    BreakablePromise(BreakablePromise const&) = delete;
    BreakablePromise& operator=(BreakablePromise const&) = delete;
    ~BreakablePromise() {
        if (!isKept) {
            promised.set_value(T());
        }
    }

    future<T> get_future() { return promised.get_future(); }
    void set_value(T value) {
        isKept = true;
        promised.set_value(value);
    }
    void set_exception(std::exception_ptr const&) { set_value(T()); }

private:
    promise<T> promised;
    plain<bool> isKept{false};
};

}  // namespace model
