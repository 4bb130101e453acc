#pragma once

#include <cerrno>
#include <climits>
#include <cstdint>
#include <set>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <ovra/log/Log.h>

#include <tests/log/CLibraryProbe.h>

namespace ovra::log::test {

/// Whether `mutex` is a part of `object` itself.
template <typename Object>
bool isInside(Object const& object, void const* mutex) {
    auto const address = reinterpret_cast<std::uintptr_t>(mutex);
    auto const begin = reinterpret_cast<std::uintptr_t>(&object);
    return begin <= address && address < begin + sizeof(Object);
}

/// What a sink does for a line, in order: "lock" and "unlock" of a mutex of its own, and what the
/// test reports from in between.
template <typename Sink>
class Trace {
public:
    explicit Trace(Sink const& watchedSink) : sink(watchedSink) {
        probe.onLock = [this](void const* mutex) {
            if (isInside(sink, mutex)) {
                mutexes.insert(mutex);
                events.emplace_back("lock");
            }
            return 0;
        };
        probe.onUnlock = [this](void const* mutex) {
            if (isInside(sink, mutex)) {
                events.emplace_back("unlock");
            }
        };
    }

    CLibraryProbe probe;
    std::vector<std::string> events;
    std::set<void const*> mutexes;

private:
    Sink const& sink;
};

template <typename Sink>
void expectThrowsWhenItCannotLock(Sink& sink, LogLevel level) {
    CLibraryProbe probe;
    probe.onLock = [&](void const* mutex) { return isInside(sink, mutex) ? EAGAIN : 0; };
    try {
        sink.handleLogMessage("lost", level);
        ADD_FAILURE() << "no exception";
    } catch (std::system_error const& e) {
        EXPECT_EQ(e.code(), std::error_code(EAGAIN, std::generic_category()));
    }
}

template <typename Sink>
void expectNeitherCopiesNorMoves() {
    EXPECT_FALSE(std::is_copy_constructible_v<Sink>);
    EXPECT_FALSE(std::is_copy_assignable_v<Sink>);
    EXPECT_FALSE(std::is_move_constructible_v<Sink>);
    EXPECT_FALSE(std::is_move_assignable_v<Sink>);
}

inline constexpr long long ALL_LEVELS[] = {0, 1, 2,  3,  4,       5,       6,
                                           7, 8, -1, -2, INT_MAX, INT_MIN, INT_MIN + 1};

}  // namespace ovra::log::test
