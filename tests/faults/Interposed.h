#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "CallFaults.h"

// What the definitions that stand in for the C library's have in common.

// The runtime of a sanitizer makes some of these calls before it can be told of accesses.
#define UNWATCHED __attribute__((no_sanitize("thread"), no_sanitize("address")))
#define INTERPOSED extern "C" __attribute__((visibility("default"))) UNWATCHED

namespace ovra::faults {

struct Verdict {
    Effect effect = Effect::FAIL;
    int error = 0;

    bool fails() const { return error != 0; }
};

/// Counts the call, and says what is to become of it.
Verdict judge(Call call);

/// The definition that the one of this executable hides.
template <typename Function>
class Next {
public:
    constexpr explicit Next(char const* functionName) : name(functionName) {}

    UNWATCHED Function* get() {
        auto* function = found.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
            if (function == nullptr) {
                std::abort();
            }
            found.store(function, std::memory_order_relaxed);
        }
        return function;
    }

private:
    char const* const name;
    std::atomic<Function*> found{nullptr};
};

UNWATCHED inline int failed(int error) {
    errno = error;
    return -1;
}

}  // namespace ovra::faults

// Fails, or hands the call on to the hidden definition.
#define OVRA_HAND_ON(call, onFailure, function, type, ...)      \
    if (Verdict const verdict = judge(call); verdict.fails()) { \
        onFailure;                                              \
    }                                                           \
    static Next<type> next(#function);                          \
    return next.get()(__VA_ARGS__)
