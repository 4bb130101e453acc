#include <tests/faults/Sweep.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace ovra::faults {

namespace {

using Snapshot = std::map<std::string, std::string>;

constexpr int MOST_SHOWN = 12;

char const* (*errorName)(int) = nullptr;

std::string resultOf(Action const& action) {
    try {
        std::string result = action();
        disarm();
        return result;
    } catch (std::bad_alloc const&) {
        return shown(OUT_OF_MEMORY);
    } catch (std::future_error const&) {
        return shown("std::future_error");
    } catch (std::system_error const&) {
        return shown(SYSTEM_ERROR);
    } catch (std::logic_error const&) {
        return shown("std::logic_error");
    } catch (...) {
        return shown("an exception that nobody mentioned");
    }
}

bool mayChange(Operation const& operation, std::string const& entry) {
    return std::any_of(operation.mayChange.begin(), operation.mayChange.end(),
                       [&](std::string const& name) {
                           return entry.compare(0, name.size(), name) == 0 &&
                                  (entry.size() == name.size() || entry[name.size()] == '/');
                       });
}

// The first entry that differs although the operation was not asked to change it.
std::string trespass(Operation const& operation, Snapshot const& before, Snapshot const& after) {
    for (auto const& entry : before) {
        auto const found = after.find(entry.first);
        if (!mayChange(operation, entry.first) &&
            (found == after.end() || found->second != entry.second)) {
            return entry.first;
        }
    }
    for (auto const& entry : after) {
        if (!mayChange(operation, entry.first) && before.count(entry.first) == 0) {
            return entry.first;
        }
    }
    return std::string();
}

bool isOneOf(std::string const& result, std::string const& several) {
    return ("|" + several + "|").find("|" + result + "|") != std::string::npos;
}

struct Expected {
    std::string result;
    Left left;
};

std::string withErrorNamed(std::string text, int error) {
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;) {
        text.replace(at, 1, errorName(error));
    }
    return text;
}

Expected expectedOf(Operation const& operation, Fault const* fault) {
    if (fault != nullptr && fault->effect == Effect::FAIL) {
        for (Hit const& hit : hits()) {
            if (operation.opensAgain && hit.call == Call::OPEN && fault->error == EINTR &&
                !fault->lasting) {
                continue;
            }
            for (Rule const& rule : operation.rules) {
                if (rule.call == hit.call && rule.first <= hit.ordinal &&
                    hit.ordinal <= rule.last && (rule.error == 0 || rule.error == fault->error)) {
                    return {withErrorNamed(rule.result, fault->error), rule.left};
                }
            }
        }
    }
    return {operation.result, DONE};
}

// Empty, or what is not as documented. `done` is what the operation leaves when nothing fails; it
// is set by the run without a fault.
std::string perform(Operation const& operation, Fault const* fault, Snapshot& done) {
    bool const usesTree = !operation.mayChange.empty();
    if (usesTree) {
        tree().restore();
    }
    Action const action = operation.make();
    Snapshot const before = usesTree ? tree().snapshot() : Snapshot();
    arm(fault);
    std::string const result = resultOf(action);
    Expected const expected = expectedOf(operation, fault);
    Snapshot const after = usesTree ? tree().snapshot() : Snapshot();
    if (fault == nullptr) {
        done = after;
    }
    if (!isOneOf(result, expected.result)) {
        return "gives " + result + " in place of " + expected.result;
    }
    if (std::string const entry = trespass(operation, before, after); !entry.empty()) {
        return "changes " + entry;
    }
    if (expected.left == UNCHANGED && after != before) {
        return "leaves something behind";
    }
    if (expected.left == DONE && after != done) {
        return "leaves it unfinished";
    }
    // The trouble is over: the same objects do what they are for.
    std::string const again = resultOf(action);
    bool const isRepeated = expected.left == DONE && operation.again != nullptr;
    if (expected.left != PARTLY &&
        !isOneOf(again, isRepeated ? operation.again : operation.result)) {
        return "is of no use afterwards, and gives " + again;
    }
    return std::string();
}

std::string performAndCount(Operation const& operation, Fault const* fault, Snapshot& done) {
    Holdings before = holdings();
    long const threadsBefore = threadsStarted();
    std::string complaint = perform(operation, fault, done);
    Holdings const after = holdings();
    if (threadsStarted() != threadsBefore) {
        before.blocks = after.blocks;  // Some go with the stacks that are kept for the next thread.
    }
    if (complaint.empty() && !(after == before)) {
        complaint = "loses " + std::to_string(after.objects - before.objects) + " objects, " +
                    std::to_string(after.blocks - before.blocks) + " blocks, " +
                    std::to_string(after.threads - before.threads) + " threads, " +
                    std::to_string(after.descriptors - before.descriptors) + " descriptors";
    }
    return complaint;
}

// What a child process reports, byte by byte: whether the fault struck, how many calls it made and
// which, and its complaint.
struct Report {
    std::string complaint;
    bool struck = false;
    std::vector<Call> calls;
};

Report performHere(Operation const& operation, Fault const* fault, Snapshot& done) {
    Report report;
    {
        std::string complaint = performAndCount(operation, fault, done);
        report.complaint.swap(complaint);
    }
    report.struck = hasStruck();
    report.calls = callsMade();
    return report;
}

Report performInChild(Operation const& operation, Fault const* fault) {
    int ends[2];
    if (pipe(ends) != 0) {
        std::abort();
    }
    std::fflush(nullptr);
    pid_t const child = fork();
    if (child == 0) {
        Snapshot done;
        std::string text = perform(operation, fault, done);
        text.insert(text.begin(), hasStruck() ? 'y' : 'n');
        text += '\n';
        for (Call const call : callsMade()) {
            text += static_cast<char>(call);
        }
        _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0
                                                                                            : 1);
    }
    close(ends[1]);
    std::string text;
    char piece[4096];
    for (ssize_t length; (length = read(ends[0], piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(length));
    }
    close(ends[0]);
    int status = 0;
    Report report;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || text.empty()) {
        report.complaint = "ends the process";
        report.struck = true;
        return report;
    }
    std::size_t const end = text.find('\n');
    report.struck = text[0] == 'y';
    report.complaint = text.substr(1, end - 1);
    for (char const call : text.substr(end + 1)) {
        report.calls.push_back(static_cast<Call>(call));
    }
    return report;
}

std::vector<Fault> faultsAt(int position, Call call) {
    std::vector<Fault> faults;
    for (bool const lasting : {false, true}) {
        for (int const error : errorsOf(call)) {
            faults.push_back({position, Effect::FAIL, error, lasting});
        }
        if (call == Call::READ || call == Call::WRITE) {
            faults.push_back({position, Effect::INTERRUPT, EINTR, lasting});
            faults.push_back({position, Effect::SHORTEN, EINTR, lasting});
        }
    }
    return faults;
}

std::string describe(Fault const& fault, Call call) {
    std::string text = std::string(nameOf(call)) + ", call " + std::to_string(fault.position);
    text += fault.lasting ? " and on, " : ", ";
    switch (fault.effect) {
        case Effect::FAIL:
            return text + std::strerror(fault.error);
        case Effect::INTERRUPT:
            return text + "interrupted";
        case Effect::SHORTEN:
            return text + "one byte only";
    }
    return text;
}

struct Tally {
    long calls = 0;
    long faults = 0;
    long complaints = 0;
};

Tally sweepOne(Operation const& operation) {
    Tally tally;
    Snapshot done;
    auto const complain = [&](std::string const& circumstances, std::string const& complaint) {
        if (++tally.complaints <= MOST_SHOWN) {
            std::printf("    %s: %s %s\n", circumstances.c_str(), operation.name,
                        complaint.c_str());
        }
    };
    auto const run = [&](Fault const* fault) {
        return operation.inChild ? performInChild(operation, fault)
                                 : performHere(operation, fault, done);
    };
    // The first run also makes what is made once in the life of a process.
    if (!operation.inChild) {
        perform(operation, nullptr, done);
    }
    Report const undisturbed = run(nullptr);
    if (!undisturbed.complaint.empty()) {
        complain("nothing fails", undisturbed.complaint);
        return tally;
    }
    tally.calls = static_cast<long>(undisturbed.calls.size());
    int position = 0;
    for (Call const call : undisturbed.calls) {
        ++position;
        if (std::find(operation.spared.begin(), operation.spared.end(), call) !=
            operation.spared.end()) {
            continue;
        }
        for (Fault const& fault : faultsAt(position, call)) {
            Report const report = run(&fault);
            tally.faults += report.struck ? 1 : 0;
            if (!report.struck) {
                complain(describe(fault, call), "has not come to this call");
            } else if (!report.complaint.empty()) {
                complain(describe(fault, call), report.complaint);
            }
        }
    }
    return tally;
}

}  // namespace

std::string shown(std::string const& text) {
    disarm();
    return text;
}

std::string shown(std::vector<std::string> const& names) {
    disarm();
    std::vector<std::string> sorted = names;
    std::sort(sorted.begin(), sorted.end());
    std::string text;
    for (std::string const& name : sorted) {
        text += (text.empty() ? "" : " ") + name;
    }
    return "[" + text + "]";
}

Tree& tree() {
    static Tree theTree;
    return theTree;
}

bool sweep(std::vector<Operation> const& operations, std::string const& only,
           char const* (*nameOfError)(int)) {
    errorName = nameOfError;
    tree();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // Nothing is lost if an operation ends the process.
    std::printf("%-46s %6s %7s  %s\n", "operation", "calls", "faults", "all as documented");
    Tally total;
    for (Operation const& operation : operations) {
        if (std::string(operation.name).find(only) == std::string::npos) {
            continue;
        }
        Tally const tally = sweepOne(operation);
        std::printf("%-46s %6ld %7ld  %s\n", operation.name, tally.calls, tally.faults,
                    tally.complaints == 0 ? "yes" : "NO");
        total.calls += tally.calls;
        total.faults += tally.faults;
        total.complaints += tally.complaints;
    }
    std::printf("%-46s %6ld %7ld  %s\n", "total", total.calls, total.faults,
                total.complaints == 0 ? "yes" : "NO");
    return total.complaints == 0 && total.faults > 0;
}

}  // namespace ovra::faults
