#include "Digest.h"

#include <cstddef>

namespace manifest {

namespace {

// Of '0' to '9', 'A' to 'F' and 'a' to 'f'.
int valueOf(char digit) {
    return digit <= '9' ? digit - '0' : (digit | 0x20) - 'a' + 10;
}

}  // namespace

Digest digestFrom(std::string const& digits) {
    Digest digest = {};
    for (std::size_t i = 0; i < digest.size(); ++i) {
        int const high = valueOf(digits[2 * i]);
        int const low = valueOf(digits[2 * i + 1]);
        digest[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return digest;
}

std::string digitsOf(Digest const& digest) {
    std::string digits;
    digits.reserve(2 * digest.size());
    for (unsigned char const byte : digest) {
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15];
    }
    return digits;
}

}  // namespace manifest
