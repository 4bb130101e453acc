// copies global|local <object> <object>: loads two shared objects that contain the library, and
// says whether they use "one" copy of it or "two".

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

int main(int count, char** arguments) {
    int const scope =
        count == 4 && std::strcmp(arguments[1], "global") == 0 ? RTLD_GLOBAL : RTLD_LOCAL;
    void* const first = count == 4 ? dlopen(arguments[2], RTLD_NOW | scope) : nullptr;
    void* const second = count == 4 ? dlopen(arguments[3], RTLD_NOW | scope) : nullptr;
    if (first == nullptr || second == nullptr) {
        return 1;
    }
    auto const set = reinterpret_cast<void (*)(int)>(dlsym(first, "setLevel"));
    auto const get = reinterpret_cast<int (*)()>(dlsym(second, "getLevel"));
    set(7);
    std::puts(get() == 7 ? "one" : "two");
}
