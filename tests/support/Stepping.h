#pragma once

#include <cstdint>
#include <functional>

namespace ovra::test {

/// Why no thread can be stepped through its instructions here. Empty if one can.
char const* noSteppingBecause();

/// One round of `atEachInstruction`.
class Stepping {
public:
    Stepping(int round, std::uintptr_t address, int visit)
        : nth(round), place(address), nthVisit(visit) {}

    /// Runs `action` up to the round's instruction. There another thread makes `change`; if that
    /// thread must wait for a lock, `action` goes on meanwhile. On return, both are complete.
    void operator()(std::function<void()> const& action, std::function<void()> const& change);

    int const nth;

private:
    std::uintptr_t const place;  // 0: notes the places.
    int const nthVisit;
};

/// The first round notes which instructions of the library its action executes. Then each of them
/// gets a round with the change ahead of it, or up to three if it is executed so often. So on every
/// run, some round makes the change between a load and the store that follows.
///
/// Link ThreadCalls.cpp and Stepping.cpp into the test. No other `ThreadCalls` may be installed.
void atEachInstruction(std::function<void(Stepping&)> const& round);

}  // namespace ovra::test
