#include <ovra/extra/internal/TimeStamp.h>

#include <cstring>

namespace ovra::extra {

namespace {

constexpr unsigned int DAY = 24 * 60 * 60;
// The calendar repeats itself after 400 years.
constexpr unsigned int DAYS_OF_4_YEARS = 4 * 365 + 1;
constexpr unsigned int DAYS_OF_100_YEARS = 25 * DAYS_OF_4_YEARS - 1;
constexpr unsigned int DAYS_OF_400_YEARS = 4 * DAYS_OF_100_YEARS + 1;
// From 1 March of the year 0 to 1 January 1970.
constexpr unsigned int DAYS_BEFORE_1970 = 719468;

char* writeNumber(char* text, unsigned int number, int digits, char following) noexcept {
    for (int digit = digits - 1; digit >= 0; --digit) {
        text[digit] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
    text[digits] = following;
    return text + digits + 1;
}

constexpr std::size_t MILLISECONDS_AT = 20;

void writeMilliseconds(char* text, unsigned int milliseconds) noexcept {
    *writeNumber(text, milliseconds, 3, 'Z') = ' ';
}

}  // namespace

void writeTimeStamp(char* text, std::int64_t seconds, unsigned int milliseconds) noexcept {
    auto const sinceEpoch = static_cast<std::uint64_t>(seconds);
    auto const second = static_cast<unsigned int>(sinceEpoch % DAY);

    // Years begin in March here, so that the leap day is the last day of its year.
    unsigned int const days = static_cast<unsigned int>(sinceEpoch / DAY) + DAYS_BEFORE_1970;
    unsigned int const day = days % DAYS_OF_400_YEARS;
    unsigned int const year = (day - day / (DAYS_OF_4_YEARS - 1) + day / DAYS_OF_100_YEARS -
                               day / (DAYS_OF_400_YEARS - 1)) /
                              365;
    unsigned int const dayOfYear = day - (365 * year + year / 4 - year / 100);
    unsigned int const month = (5 * dayOfYear + 2) / 153;  // Five months have 153 days.
    unsigned int const dayOfMonth = dayOfYear - (153 * month + 2) / 5 + 1;
    bool const isInNextYear = month >= 10;

    text =
        writeNumber(text, days / DAYS_OF_400_YEARS * 400 + year + (isInNextYear ? 1 : 0), 4, '-');
    text = writeNumber(text, isInNextYear ? month - 9 : month + 3, 2, '-');
    text = writeNumber(text, dayOfMonth, 2, 'T');
    text = writeNumber(text, second / 3600, 2, ':');
    text = writeNumber(text, second / 60 % 60, 2, ':');
    text = writeNumber(text, second % 60, 2, '.');
    writeMilliseconds(text, milliseconds);
}

void TimeStamps::write(char* stamp, std::int64_t seconds, unsigned int milliseconds) noexcept {
    auto const now = static_cast<std::uint32_t>(seconds);
    if (now == 0 || now != second.load(std::memory_order_relaxed)) {
        second.store(0, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        writeTimeStamp(text, seconds, milliseconds);
        second.store(now, std::memory_order_release);
    }
    std::memcpy(stamp, text, TIME_STAMP_LENGTH);
    writeMilliseconds(stamp + MILLISECONDS_AT, milliseconds);
}

}  // namespace ovra::extra
