#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

namespace ovra::test {

/// The definition of a C library's function that one of this executable hides. Ends the process if
/// there is none.
///
/// A sanitizer's runtime makes some of these calls before it can record accesses, so no access here
/// is recorded.
template <typename Function>
__attribute__((no_sanitize("thread"), no_sanitize("address"))) Function* nextFunction(
    char const* name) {
    void* const address = dlsym(RTLD_NEXT, name);
    if (address == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(address);
}

/// The same, looked up at the first call only. For static storage: it is ready before any code
/// runs.
template <typename Function>
class NextFunction {
public:
    constexpr explicit NextFunction(char const* functionName) : name(functionName) {}

    __attribute__((no_sanitize("thread"), no_sanitize("address"))) Function* get() {
        Function* function = found.load(std::memory_order_relaxed);
        if (function == nullptr) {
            function = nextFunction<Function>(name);
            found.store(function, std::memory_order_relaxed);
        }
        return function;
    }

    template <typename... Arguments>
    __attribute__((no_sanitize("thread"), no_sanitize("address"))) auto operator()(
        Arguments... arguments) {
        return get()(arguments...);
    }

private:
    char const* const name;
    std::atomic<Function*> found{nullptr};
};

}  // namespace ovra::test
