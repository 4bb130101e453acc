#pragma once

#include <utility>

namespace ovra::test {

/// Takes an observer away from its place for as long as it lives, so that nothing is observed of
/// what the observer does itself.
template <typename Observer>
class Pause {
public:
    explicit Pause(Observer*& observersPlace)
        : paused(std::exchange(observersPlace, nullptr)), place(observersPlace) {}
    Pause(Pause const&) = delete;
    Pause& operator=(Pause const&) = delete;
    ~Pause() { place = paused; }

    Observer* const paused;

private:
    Observer*& place;
};

}  // namespace ovra::test
