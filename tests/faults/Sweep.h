#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tests/faults/CallFaults.h>
#include <tests/faults/Tree.h>

namespace ovra::faults {

/// What an operation is to leave on the disk.
enum Left {
    UNCHANGED,  // what was there before
    DONE,       // what it leaves when nothing fails
    PARTLY,     // anything, among the entries that it may change
};

/// What the documents promise when a call fails.
struct Rule {
    Call call;
    int first;  // of its kind, from 1
    int last;
    // Several, where the order of a directory's entries decides: "0|1". A "@" stands for what the
    // error is called.
    char const* result;
    Left left;
    int error = 0;  // With this one only; 0: whatever the error.
};

/// Whichever call of the kind fails.
inline Rule any(Call call, char const* result, Left left = UNCHANGED) {
    return {call, 1, 1 << 20, result, left, 0};
}
/// When the call of that ordinal among its kind fails.
inline Rule nth(Call call, int ordinal, char const* result, Left left = UNCHANGED) {
    return {call, ordinal, ordinal, result, left, 0};
}
inline Rule from(Call call, int ordinal, char const* result, Left left = UNCHANGED) {
    return {call, ordinal, 1 << 20, result, left, 0};
}

inline constexpr char const* OUT_OF_MEMORY = "std::bad_alloc";
inline constexpr char const* SYSTEM_ERROR = "std::system_error";

/// When any call of the kind fails with that error.
inline Rule with(int error, Call call, char const* result, Left left = UNCHANGED) {
    return {call, 1, 1 << 20, result, left, error};
}

using Action = std::function<std::string()>;

/// One operation of the public interface.
struct Operation {
    char const* name;
    /// Its result when nothing fails, as text.
    std::string result;
    /// The first that fits one of the calls that failed decides. Where none fits, the failure makes
    /// no difference.
    std::vector<Rule> rules;
    /// Builds what it works on, with no call failing, and returns what is to be tried. That ends
    /// with `shown(...)`. Called again once the fault is over, it shows that the objects are
    /// usable.
    std::function<Action()> make;
    /// The entries it may change; a name stands for all below it.
    std::vector<std::string> mayChange = {};
    /// The result of the second call, when the first one was done; or several, as above.
    char const* again = nullptr;
    /// Each try in a process of its own, for what happens once in the life of a process.
    bool inChild = false;
    /// Calls whose failure nobody could learn of: a destructor that cannot lock ends the process.
    std::vector<Call> spared = {};
    /// Whether it opens again what a signal has interrupted, so that one interruption makes no
    /// difference.
    bool opensAgain = false;
};

/// Ends the watch, so that the text is made undisturbed.
inline std::string shown(bool value) {
    disarm();
    return value ? "true" : "false";
}
inline std::string shown(long long value) {
    disarm();
    return std::to_string(value);
}
inline std::string shown(int value) {
    return shown(static_cast<long long>(value));
}
inline std::string shown(char const* text) {
    disarm();
    return text;
}
std::string shown(std::string const& text);
/// Sorted.
std::string shown(std::vector<std::string> const& names);

/// What every operation on the disk works in.
Tree& tree();

std::vector<Operation> fileOperations();
std::vector<Operation> logOperations();
std::vector<Operation> taskOperations();

/// Lets every call of every operation fail with every error, once and from then on. Prints a table,
/// and what is not as documented. Whether all is. Only operations whose names contain `only`.
/// `nameOfError` is what a "@" in a result stands for.
bool sweep(std::vector<Operation> const& operations, std::string const& only,
           char const* (*nameOfError)(int) = nullptr);

}  // namespace ovra::faults
