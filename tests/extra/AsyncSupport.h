#pragma once

#include <chrono>
#include <future>

#include <ovra/concurrent/Executable.h>

namespace ovra::extra {

template <typename Value>
bool isReady(std::future<Value> const& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// Work that counts its copies.
struct Counted {
    explicit Counted(int* copyCounter) : copies(copyCounter) {}
    Counted(Counted const& other) : copies(other.copies) { ++*copies; }
    Counted(Counted&&) = default;
    Counted& operator=(Counted const&) = delete;
    ~Counted() = default;
    concurrent::Executable::Result operator()() const { return concurrent::Executable::SUCCESS; }
    int* copies;
};

}  // namespace ovra::extra
