#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

namespace ovra::extra {

/// The work behind `RecentLinesLogHandler`: a fixed number of places, which lines take in turn.
///
/// Each line gets a ticket, which says what place it takes. Tickets begin at 1; after the last one
/// they begin at 1 again.
class LineRing {
public:
    /// `ticketsTaken`: as if so many lines had been kept before. At most `mostTickets(lines)`.
    LineRing(std::size_t lines, std::size_t bytesEach, std::size_t ticketsTaken = 0);

    void keep(char const* line);
    bool writeTo(int descriptor) const;

    /// The last ticket of a ring of so many lines, which are not 0.
    static std::size_t mostTickets(std::size_t lines);
    /// Whether `first` was handed out after `second`. They are less than half of all tickets apart.
    bool isLater(std::size_t first, std::size_t second) const;

private:
    using Word = std::size_t;
    static_assert(std::atomic<Word>::is_always_lock_free);  // In a signal handler.

    struct Place {
        std::atomic<Word> word{0};
        // Belong to the thread that fills the place, or to its readers.
        std::size_t length = 0;
        char* text = nullptr;

        void fill(char const* line, std::size_t limit);
    };

    class Reader;
    enum class Claim { TAKEN, TOO_LATE, IN_USE };

    Word after(Word ticket) const { return ticket == tickets ? 1 : ticket + 1; }
    Place& placeOf(Word ticket) const { return places[(ticket - 1) % count]; }
    Word takeTicket();
    Claim claim(Place& place, Word ticket) const;

    std::size_t const count;
    std::size_t const most;
    Word const tickets;  // A multiple of `count`, so that each ticket keeps its place.
    std::unique_ptr<char[]> const bytes;
    std::unique_ptr<Place[]> const places;
    std::atomic<Word> lastTicket;
};

}  // namespace ovra::extra
