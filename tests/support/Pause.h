#pragma once

#include <utility>

namespace ovra::test {

/// Removes an observer from its place while this exists, so that the observer does not see what it
/// does itself.
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
