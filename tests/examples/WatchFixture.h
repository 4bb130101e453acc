#pragma once

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include <tests/examples/Digests.h>
#include <tests/examples/NotifySocket.h>
#include <tests/examples/Process.h>
#include <tests/support/Bounded.h>
#include <tests/support/ScratchDirectory.h>

namespace ovra::test {

/// Runs `ovra-manifest watch` in a scratch directory with the files "d/a" and "d/b", which the
/// file "manifest" lists. A test starts each round but the first, and is notified of its end.
class WatchFixture : public BoundedTest {
protected:
    WatchFixture() : socket(scratch.path("socket")) {
        scratch.write("d/a", "alpha");
        scratch.write("d/b", "beta");
        scratch.write("manifest", ALPHA + "  d/a\n" + BETA + "  d/b\n");
    }

    Command command(std::vector<std::string> const& options) const {
        Command result;
        result.arguments = {OVRA_MANIFEST, "watch", "manifest", "--every", "100000"};
        result.arguments.insert(result.arguments.end(), options.begin(), options.end());
        result.directory = scratch.path();
        result.environment = {{"NOTIFY_SOCKET", socket.address()}};
        return result;
    }
    void start(std::vector<std::string> const& options = {}) { start(command(options)); }
    void start(Command const& made) { process = std::make_unique<Process>(made); }

    /// What one round prints, with the exit status of a program that ends after it.
    Outcome runOnce(std::vector<std::string> options = {}) const {
        options.insert(options.end(), {"--rounds", "1"});
        return run(command(options));
    }

    /// Waits for the end of a round, and returns what the program says of it: "files: 2, ...".
    std::string roundEnded(unsigned int number) {
        std::string const begin = "STATUS=Round " + std::to_string(number) + ": ";
        return socket.waitFor(begin).substr(begin.size());
    }
    /// Runs another round to its end.
    std::string nextRound(unsigned int number) {
        process->send(SIGUSR2);
        return roundEnded(number);
    }
    Outcome end(int signal = SIGTERM) {
        process->send(signal);
        return process->finish();
    }

    ScratchDirectory scratch;
    NotifySocket socket;
    std::unique_ptr<Process> process;
};

}  // namespace ovra::test
