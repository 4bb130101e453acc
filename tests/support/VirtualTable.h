#pragma once

#include <dlfcn.h>
#include <link.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace ovra::test {

/// The place of a virtual operation in its class's table, by the Itanium C++ ABI: the destructor
/// takes the places 0 and 1.
template <typename Member>
std::size_t virtualSlot(Member member) {
    struct Representation {
        std::size_t address;
        std::size_t adjustment;
    };
    static_assert(sizeof(Member) == sizeof(Representation));
    Representation representation;
    std::memcpy(&representation, &member, sizeof representation);
#if defined(__arm__) || defined(__aarch64__)
    return representation.address / sizeof(void*);
#else
    return (representation.address - 1) / sizeof(void*);
#endif
}

/// The number of places in the table that the shared object exports for a class of that
/// subsystem; 0 if there is none.
inline std::size_t virtualSlotCount(std::string const& className,
                                    std::string const& subsystem = "concurrent") {
    std::string symbol = "_ZTVN4ovra";
    for (std::string const& name : {subsystem, className}) {
        symbol += std::to_string(name.size()) + name;
    }
    symbol += 'E';
    void* const table = dlsym(RTLD_DEFAULT, symbol.c_str());
    Dl_info info;
    void* entry = nullptr;
    if (table == nullptr || dladdr1(table, &info, &entry, RTLD_DL_SYMENT) == 0) {
        return 0;
    }
    // Before the operations stand the offset to the top and the type information.
    return static_cast<ElfW(Sym) const*>(entry)->st_size / sizeof(void*) - 2;
}

}  // namespace ovra::test
