#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace ovra::extra::test {

/// One call of the system, as the library makes it.
struct SystemCall {
    std::string name;     ///< Such as "openat", whatever the platform calls it.
    int descriptor = -1;  ///< What it is made on: a file, or the directory that `path` is below.
    std::string path = {};
    std::string newPath = {};  ///< Of a rename.
    std::string bytes = {};    ///< What is written.
    int flags = 0;
    mode_t mode = 0;
    uid_t user = 0;
    gid_t group = 0;
    long result = 0;  ///< Known afterwards.
};

/// Sees the file-system calls of this thread for as long as it lives: the executable defines the
/// functions of the C library concerned.
class Intercepted {
public:
    Intercepted();
    Intercepted(Intercepted const&) = delete;
    Intercepted& operator=(Intercepted const&) = delete;
    ~Intercepted();

    /// Called before each call; what it does itself is not seen. An error number that it returns is
    /// what the call fails with; 0 lets it happen.
    std::function<int(SystemCall const&)> before;

    /// A write takes no more bytes at a time.
    std::size_t mostBytes = static_cast<std::size_t>(-1);

    /// A directory does not say of what kind its entries are.
    bool hidesKinds = false;

    /// Nothing says that it is a mount point, as on systems before Linux 5.8.
    bool hidesMounts = false;

    /// All entries have the same number.
    bool sharesNumbers = false;

    /// A directory ends after so many entries.
    int mostEntries = 1 << 30;

    /// Those that were made, in order, failed ones included.
    std::vector<SystemCall> const& calls() const { return made; }
    int count(std::string const& name) const;

    /// For the definitions of the calls.
    bool admit(SystemCall const& call);
    void note(SystemCall call, long result);

private:
    std::vector<SystemCall> made;
};

}  // namespace ovra::extra::test
