#pragma once

namespace ovra::fs::test {

/// Watches operator new and delete on this thread for as long as it lives, and lets one allocation
/// fail. The executable replaces the operators, for the shared object as well.
class Allocations {
public:
    Allocations();
    Allocations(Allocations const&) = delete;
    Allocations& operator=(Allocations const&) = delete;
    ~Allocations();

    /// Lets the allocation after the next `succeeding` ones fail, once.
    void failAfter(int succeeding);
    /// From now on operator delete changes `errno`, as an application's own may.
    void changeErrno();
    /// Whether that allocation has been asked for.
    bool hasFailed() const;
    /// The allocations since the watch began.
    int made() const;
    /// Those of them that still live, less what lived before and does not any more.
    int living() const;
};

}  // namespace ovra::fs::test
