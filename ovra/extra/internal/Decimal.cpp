#include <ovra/extra/internal/Decimal.h>

#include <charconv>

namespace ovra::extra {

char* writeDecimal(char* text, std::uint64_t number) noexcept {
    return std::to_chars(text, text + MOST_DIGITS, number).ptr;
}

}  // namespace ovra::extra
