// Part of each library where it counts what is run: a process that ends at once, as forked ones and
// those of death tests do, writes its counts all the same. Each hands on to the next, so that every
// library writes its own.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

extern "C" void __gcov_dump();

void _exit(int status) {
    __gcov_dump();
    reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "_exit"))(status);
    __builtin_unreachable();
}

void _Exit(int status) noexcept {
    _exit(status);
}

void abort() noexcept {
    __gcov_dump();
    reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "abort"))();
    __builtin_unreachable();
}
