// Loads a plug-in that uses ovra, and unloads it again. The application itself does not use ovra.

#include <dlfcn.h>

#include <iostream>

int main(int, char** arguments) {
    void* const plugin = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::cerr << dlerror() << '\n';
        return 1;
    }
    auto const start = reinterpret_cast<int (*)()>(dlsym(plugin, "pluginStart"));
    auto const stop = reinterpret_cast<void (*)()>(dlsym(plugin, "pluginStop"));
    bool const works = start() == 0;
    stop();  // Before dlclose(): no thread may be inside the library then.
    dlclose(plugin);
    std::cout << (works ? "loaded, used and unloaded\n" : "failed\n");
    return works ? 0 : 1;
}
