#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace ovra::test {

/// How a program ended and what it printed.
struct Outcome {
    int exitStatus = -1;  ///< -1 if a signal ended it.
    int signal = 0;
    std::string out;
    std::string err;
    long peakKilobytes = 0;  ///< Of memory.
};

/// What to start, and how.
struct Command {
    std::vector<std::string> arguments;  ///< The program, found along PATH, and its arguments.
    std::string directory;               ///< Where it runs.
    std::string input;                   ///< Its standard input; a few kilobytes at most.
    std::string locale = "C";
    std::vector<std::pair<std::string, std::string>> environment;  ///< Added to the test's own.
    std::string outputFile;          ///< Instead of keeping its standard output.
    std::string errorFile;           ///< Instead of keeping its standard error.
    bool onTerminal = false;         ///< Standard error is a terminal.
    std::string terminal = "xterm";  ///< TERM.
    bool noColour = false;           ///< NO_COLOR is set.
    bool unprivileged = false;       ///< As root: without root's rights to files.
    bool interruptIgnored = false;   ///< SIGINT is ignored from the start.
    unsigned long descriptors = 0;   ///< The limit on open files, if not 0.
    unsigned long memoryBytes = 0;   ///< The limit on its address space, if not 0.
    unsigned long fileBytes = 0;     ///< The limit on the size of files it writes, if not 0.
};

/// A program that runs beside the test. It is killed if the test ends first.
class Process {
public:
    explicit Process(Command const& command);
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;
    ~Process();

    /// Reads on until standard error contains `text`; false if it ends without.
    bool waitForError(std::string const& text);
    /// The same for standard output.
    bool waitForOutput(std::string const& text);
    void send(int signal) const;
    pid_t id() const;

    /// While this process is read from, read from `descriptor` too, and throw that away.
    void alsoDrain(int descriptor);
    /// Reads on until the program has ended.
    Outcome finish();

private:
    bool waitFor(std::string const& stream, std::string const& text);
    bool readSome();

    pid_t child = -1;
    int out = -1;
    int err = -1;
    int drained = -1;
    Outcome outcome;
};

/// Whether this machine gives out terminals: not without /dev/pts.
bool hasTerminals();

/// Starts a program and waits for its end.
Outcome run(Command const& command);

}  // namespace ovra::test
