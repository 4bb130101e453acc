#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ovra::fs::test {

/// Records the file-system calls of this thread for as long as it lives.
///
/// The executable defines the functions of the C library concerned, and a definition in the
/// executable is the one that shared objects call. Without a recorder they do what they always do.
class SystemCalls {
public:
    /// `root` is left out of the paths recorded.
    explicit SystemCalls(std::string root);
    SystemCalls(SystemCalls const&) = delete;
    SystemCalls& operator=(SystemCalls const&) = delete;
    ~SystemCalls();

    /// The calls since the last time, such as "lstat f", "chmod 0755 f", "rename f g" or "readdir".
    /// A file opened by a stream is "open f" with the mode of fopen().
    std::vector<std::string> take();
    /// How many of these calls there were since the last take(), by the first word.
    int count(std::string const& name) const;

    /// Called before each call, with what is recorded for it and without recording what it does
    /// itself. An error number that it returns is what the call fails with; 0 lets it happen.
    std::function<int(std::string const&)> intercept;

    /// Called before each write of a stream, none of which is recorded.
    std::function<void()> onWrite;

    /// What readdir() gives as the type of each entry, such as DT_UNKNOWN, instead of the true one.
    std::optional<unsigned char> entryType;

    /// For the definitions of the calls.
    int enter(std::string const& call);
    std::string shorten(char const* path) const;

private:
    std::string const root;
    std::vector<std::string> calls;
};

}  // namespace ovra::fs::test
