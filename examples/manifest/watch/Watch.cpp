#include "Watch.h"

#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/extra/MonitoredExecutor.h>
#include <ovra/extra/ScheduledTasks.h>
#include <ovra/extra/SubmitAsync.h>
#include <ovra/log/Log.h>

#include "Findings.h"
#include "Hasher.h"
#include "ListedFiles.h"
#include "ManifestLine.h"
#include "Notify.h"
#include "Pace.h"
#include "Quote.h"
#include "Rounds.h"
#include "Signals.h"
#include "StatusFile.h"
#include "WatchLog.h"

namespace manifest {

namespace concurrent = ovra::concurrent;
namespace extra = ovra::extra;
namespace log = ovra::log;
using concurrent::Executable;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr char TAG[] = "watch()";

// A request to end is met within five seconds.
constexpr milliseconds ROUND_ENDS_WITHIN(2500);
constexpr unsigned int SECONDS_TO_THE_END = 4;
constexpr seconds ANSWER_WITHIN(2);

// Without a stream: it would be locked for as long as nobody reads the output.
void print(int descriptor, std::string_view text) {
    while (!text.empty()) {
        ssize_t const count = write(descriptor, text.data(), text.size());
        if (count == -1 && errno != EINTR) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

void printAnswer(std::string const& text) {
    print(STDERR_FILENO, "ovra-manifest: " + text + '\n');
}

// Says it at once on standard output, as check does, and in the log.
void report(std::string const& path, std::string const& what, bool isNow) {
    print(STDOUT_FILENO,
          (path.find('\n') == std::string::npos ? path : escapedPath(path)) + ": " + what + '\n');
    log::logVerbatim(isNow ? log::ERROR : log::WARNING, TAG, "%s: %s", quoted(path).c_str(),
                     what.c_str());
}

// The threads are few and allocate little: they share one heap. What a round needs goes back to the
// system at its end.
void saveMemory() {
    constexpr int LARGE_BYTES = 65536;
    // NOLINTBEGIN(concurrency-mt-unsafe): there are no other threads yet.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, LARGE_BYTES);
    mallopt(M_TRIM_THRESHOLD, LARGE_BYTES);
    // NOLINTEND(concurrency-mt-unsafe)
}

// Throws now rather than at the first round.
void requireManifest(std::string const& path) {
    Pace unlimited(0);
    ListedFiles const files(path, unlimited);
}

std::atomic<int> statusAtTheEnd{ALL_WELL};

void endNow(int) {
    _exit(statusAtTheEnd);
}

// The service: what it consists of, and what it does with signals.
class Watch {
public:
    explicit Watch(WatchOptions const& watchOptions);

    ExitStatus run();

private:
    std::function<Executable::Result()> round();
    void startRound();
    void roundEnded(std::uint64_t round, std::string const& summary);
    void serve(int signal);
    void giveSignOfLife();
    void answer();
    void stop();

    WatchOptions const& options;
    Notify const notify;
    WatchLog const watchLog;
    Findings findings;
    StatusFile statusFile;
    Pace pace;
    std::uint64_t stepsSeen = 0;
    std::uint64_t roundsRun = 0;  // Of the thread that runs them.

    Signals const signals;  // Before the threads, but after all that may be held up.
    std::shared_ptr<extra::MonitoredExecutor> const hashing;
    Rounds rounds;
    std::shared_ptr<concurrent::TaskExecutor> const control;   // A round, and who wants another.
    std::shared_ptr<concurrent::TaskExecutor> const requests;  // One by one: any may be held up.
    extra::ScheduledTasks schedule;
};

Watch::Watch(WatchOptions const& watchOptions)
    : options(watchOptions),
      watchLog(options),
      findings(report),
      statusFile(options.status, findings),
      pace(options.bytesPerSecond),
      hashing(std::make_shared<extra::MonitoredExecutor>(makeExecutor(options.jobs))),
      rounds(
          options, hashing, findings, statusFile, pace,
          [this](std::uint64_t round, std::string const& summary) { roundEnded(round, summary); }),
      control(makeExecutor(2)),
      requests(makeExecutor(1)),
      schedule(control) {}

ExitStatus Watch::run() {
    if (schedule.every(options.period, round(), concurrent::NORMAL, "round") == 0) {
        throw std::runtime_error("no thread can be started");
    }
    bool isReady = notify.send("READY=1");
    log::log(log::WARNING, TAG, "Started, process %d.", getpid());
    startRound();

    milliseconds const interval = Notify::watchdogInterval();
    bool const isWatched = interval.count() != 0;
    auto nextSign = std::chrono::steady_clock::now() + interval;
    for (;;) {
        isReady = isReady || notify.send("READY=1");  // Whoever has started it waits for that.
        auto const now = std::chrono::steady_clock::now();
        if (isWatched && now >= nextSign) {
            giveSignOfLife();
            nextSign = now + interval;
        }
        std::chrono::nanoseconds const limit = !isReady    ? milliseconds(100)
                                               : isWatched ? nextSign - now
                                                           : seconds(3600);
        int const signal = signals.next(limit).value_or(0);
        if (signal == SIGTERM || signal == SIGINT) {
            statusAtTheEnd = signal == SIGINT ? INTERRUPTED : statusAtTheEnd.load();
            stop();
            return static_cast<ExitStatus>(statusAtTheEnd.load());
        }
        if (signal != 0) {
            serve(signal);
        }
    }
}

std::function<Executable::Result()> Watch::round() {
    return [this] {
        rounds.run();
        return Executable::SUCCESS;
    };
}

void Watch::startRound() {
    schedule.after(milliseconds(0), round(), concurrent::NORMAL, "round");
}

void Watch::roundEnded(std::uint64_t round, std::string const& summary) {
    notify.send("STATUS=Round " + std::to_string(round) + ": " + summary);
    if (++roundsRun == options.rounds) {
        statusAtTheEnd = rounds.isAllWell() ? ALL_WELL : TROUBLE;
        pace.stop();
        kill(getpid(), SIGTERM);
    }
}

// Nothing here may block: the next signal may ask for the end.
void Watch::serve(int signal) {
    if (signal == SIGUSR2) {
        startRound();
        return;
    }
    requests->submitTask(
        [this, signal] {
            if (signal == SIGHUP) {
                watchLog.reopen();
            } else {
                answer();
            }
            return Executable::SUCCESS;
        },
        concurrent::NORMAL, {}, "request");
}

// None while a round stands still, as when a disk hangs: systemd then starts the service again.
void Watch::giveSignOfLife() {
    std::uint64_t const steps = pace.steps();
    if (steps != stepsSeen || !rounds.isUnderWay()) {
        notify.send("WATCHDOG=1");
    }
    stepsSeen = steps;
}

// Prints at once what is running and waiting. Asks a worker, ahead of all files, for the progress
// of the round: it answers when it has ended its file.
void Watch::answer() {
    auto progress = extra::submitAsync(
        *hashing, [this] { return rounds.progress(); }, concurrent::HIGHEST, "status");
    printAnswer("the last lines of the log:");
    watchLog.writeRecentLines(STDERR_FILENO);
    printAnswer("running and waiting:");
    hashing->writeTo(STDERR_FILENO);

    auto const limit = std::chrono::steady_clock::now() + ANSWER_WITHIN;
    bool isReady = false;
    while (!isReady && !pace.isStopped() && std::chrono::steady_clock::now() < limit) {
        isReady = progress.future.wait_for(milliseconds(50)) == std::future_status::ready;
    }
    if (!isReady) {
        progress.cancel();
    }
    printAnswer(isReady ? progress.future.get() : rounds.progress() + " (all workers are reading)");
}

void Watch::stop() {
    signal(SIGALRM, endNow);  // Whatever blocks the rest.
    alarm(SECONDS_TO_THE_END);
    notify.send("STOPPING=1");
    pace.stop();
    if (!rounds.waitForEnd(ROUND_ENDS_WITHIN)) {
        // The system blocks a worker, so nobody can join it.
        log::log(log::WARNING, TAG, "Ended in the middle of a file.");
        _exit(statusAtTheEnd);
    }
    log::log(log::WARNING, TAG, "Ended.");
}

}  // namespace

ExitStatus watch(WatchOptions const& options) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    saveMemory();
    requireManifest(options.manifest);
    return Watch(options).run();
}

}  // namespace manifest
