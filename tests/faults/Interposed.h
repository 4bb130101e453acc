#pragma once

#include <cerrno>

#include <tests/faults/CallFaults.h>
#include <tests/support/NextFunction.h>

// What the definitions that stand in for the C library's have in common.

// The runtime of a sanitizer makes some of these calls before it can record accesses.
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

using ovra::test::NextFunction;

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
    static NextFunction<type> next(#function);                  \
    return next(__VA_ARGS__)

// Sets errno and gives a null pointer.
#define OVRA_OR_NULL()         \
    {                          \
        errno = verdict.error; \
        return nullptr;        \
    }
