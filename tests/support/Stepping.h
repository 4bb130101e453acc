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

    /// Runs `action` up to the round's instruction. There another thread makes `change`; if it must
    /// wait for a lock, this thread goes on meanwhile. Afterwards, both have been done.
    void operator()(std::function<void()> const& action, std::function<void()> const& change);

    int const nth;

private:
    std::uintptr_t const place;  // 0: notes the places.
    int const nthVisit;
};

/// Runs a round for each instruction of the library that the action of the first round executes,
/// with a change ahead of it; three for one that it executes so often. So whatever lies between a
/// look and a store, in one of the rounds the change falls between them, on every run.
///
/// Link ThreadCalls.cpp and Stepping.cpp into the test. No other `ThreadCalls` may be installed.
void atEachInstruction(std::function<void(Stepping&)> const& round);

}  // namespace ovra::test
