#pragma once

#include <dlfcn.h>
#include <link.h>

#include <cstddef>
#include <string>

#include <tests/support/VirtualTable.h>

namespace ovra::fs::test {

/// The number of places in the virtual table that the shared object exports for a class of this
/// subsystem; 0 if there is none. The destructor takes the first two.
inline std::size_t slotCount(std::string const& className) {
    std::string const symbol = "_ZTVN4ovra2fs" + std::to_string(className.size()) + className + "E";
    void* const table = dlsym(RTLD_DEFAULT, symbol.c_str());
    Dl_info info;
    void* entry = nullptr;
    if (table == nullptr || dladdr1(table, &info, &entry, RTLD_DL_SYMENT) == 0) {
        return 0;
    }
    // Before the operations stand the offset to the top and the type information.
    return static_cast<ElfW(Sym) const*>(entry)->st_size / sizeof(void*) - 2;
}

}  // namespace ovra::fs::test
