#include <ovra/extra/internal/LineRing.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include <ovra/extra/internal/ForkCount.h>
#include <ovra/extra/internal/WriteWhole.h>

namespace ovra::extra {

namespace {

// The state of a place, in one word, so that its owner changes in one step:
//
//     0 ............ nothing in it
//     ticket | readers | 0 ... the line with that ticket, and how many threads write it out
//     fork count | 1 ......... a thread of the process with that count is putting a line in
using Word = std::size_t;

constexpr Word EMPTY = 0;
constexpr Word BEING_FILLED = 1;
constexpr Word ONE_READER = 2;
constexpr Word ALL_READERS = 15 * ONE_READER;
constexpr Word ONE_TICKET = ALL_READERS + ONE_READER;
constexpr Word MOST_TICKETS = std::numeric_limits<Word>::max() / ONE_TICKET;

Word beingFilled() {
    return Word{forkCount()} << 1 | BEING_FILLED;
}

// Throws `std::bad_alloc` where so many bytes have no number.
std::size_t bytesOf(std::size_t lines, std::size_t bytesEach) {
    std::size_t result = 0;
    if (bytesEach == std::numeric_limits<std::size_t>::max() ||
        __builtin_mul_overflow(lines, bytesEach + 1, &result)) {
        throw std::bad_alloc();
    }
    return result;
}

}  // namespace

// Keeps the line with this ticket, if it is there, from being overwritten.
class LineRing::Reader {
public:
    Reader(std::atomic<Word>& readWord, Word ticket) : word(readWord) {
        Word seen = word.load(std::memory_order_relaxed);
        while ((seen & ~ALL_READERS) == ticket * ONE_TICKET && seen % ONE_TICKET < ALL_READERS &&
               !isHolding) {
            isHolding = word.compare_exchange_weak(
                seen, seen + ONE_READER, std::memory_order_acquire, std::memory_order_relaxed);
        }
    }
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;
    ~Reader() {
        if (isHolding) {
            word.fetch_sub(ONE_READER, std::memory_order_release);
        }
    }

    bool isHolding = false;

private:
    std::atomic<Word>& word;
};

LineRing::LineRing(std::size_t lines, std::size_t bytesEach, std::size_t ticketsTaken)
    : count(lines),
      most(bytesEach),
      tickets(lines == 0 ? 0 : mostTickets(lines)),
      bytes(new char[bytesOf(lines, bytesEach)]()),
      places(new Place[lines]),
      lastTicket(ticketsTaken) {
    countForks();
    for (std::size_t index = 0; index < count; ++index) {
        places[index].text = &bytes[index * (most + 1)];
    }
}

std::size_t LineRing::mostTickets(std::size_t lines) {
    return MOST_TICKETS / lines * lines;
}

bool LineRing::isLater(Word first, Word second) const {
    Word const ahead = first >= second ? first - second : tickets - second + first;
    return ahead != 0 && ahead < tickets / 2;
}

void LineRing::keep(char const* line) {
    for (std::size_t attempt = 0; attempt < count; ++attempt) {
        Word const ticket = takeTicket();
        Place& place = placeOf(ticket);
        switch (claim(place, ticket)) {
            case Claim::TAKEN:
                place.fill(line, most);
                place.word.store(ticket * ONE_TICKET, std::memory_order_release);
                return;
            case Claim::TOO_LATE:
                return;
            case Claim::IN_USE:
                break;
        }
    }
}

bool LineRing::writeTo(int descriptor) const {
    if (count == 0) {
        return true;
    }
    Word const last = lastTicket.load(std::memory_order_acquire);
    Word ticket = last >= count ? last - count : last + tickets - count;
    for (std::size_t step = 0; step < count; ++step) {
        ticket = after(ticket);
        Place& place = placeOf(ticket);
        Reader const reader(place.word, ticket);
        if (reader.isHolding && !writeWhole(descriptor, place.text, place.length)) {
            return false;
        }
    }
    return true;
}

void LineRing::Place::fill(char const* line, std::size_t limit) {
    length = strnlen(line, limit);
    std::memcpy(text, line, length);
    text[length++] = '\n';
}

LineRing::Word LineRing::takeTicket() {
    Word before = lastTicket.load(std::memory_order_relaxed);
    while (!lastTicket.compare_exchange_weak(before, after(before), std::memory_order_acq_rel,
                                             std::memory_order_relaxed)) {
    }
    return after(before);
}

LineRing::Claim LineRing::claim(Place& place, Word ticket) const {
    Word seen = place.word.load(std::memory_order_relaxed);
    do {
        bool const isLeftBehind = (seen & BEING_FILLED) != 0 && seen != beingFilled();
        if (!isLeftBehind && (seen & (BEING_FILLED | ALL_READERS)) != 0) {
            return Claim::IN_USE;
        }
        if (!isLeftBehind && seen != EMPTY && isLater(seen / ONE_TICKET, ticket)) {
            return Claim::TOO_LATE;
        }
    } while (!place.word.compare_exchange_weak(seen, beingFilled(), std::memory_order_acquire,
                                               std::memory_order_relaxed));
    return Claim::TAKEN;
}

}  // namespace ovra::extra
