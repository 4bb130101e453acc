#include "Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace manifest {

namespace {

constexpr double BYTES_PER_MEGABYTE = 1e6;
constexpr double SECONDS_BEFORE_A_GUESS = 2;

// NOLINTBEGIN(concurrency-mt-unsafe): nothing changes the environment.
bool isDumb() {
    char const* const terminal = std::getenv("TERM");
    return terminal != nullptr && std::strcmp(terminal, "dumb") == 0;
}

bool takesEscapes() {
    char const* const plain = std::getenv("NO_COLOR");
    return plain == nullptr || *plain == '\0';
}
// NOLINTEND(concurrency-mt-unsafe)

bool canBeShown(bool wanted) {
    return wanted && isatty(STDERR_FILENO) != 0 && !isDumb();
}

// As many columns as a line may have without reaching the next one.
std::size_t usableColumns() {
    winsize size = {};
    bool const isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (isKnown ? size.ws_col : 80) - 1U;
}

std::string eraseLine() {
    return takesEscapes() ? "\r\033[K" : '\r' + std::string(usableColumns(), ' ') + '\r';
}

// 24857 -> "24 857"
std::string grouped(std::size_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3) {
        text.insert(at - 3, 1, ' ');
    }
    return text;
}

}  // namespace

Progress::Progress(std::size_t totalFiles, std::int64_t totalBytes, bool wanted)
    : filesTotal(totalFiles), bytesTotal(totalBytes), active(canBeShown(wanted)) {}

Progress::Progress(std::string searching, bool wanted)
    : filesTotal(0), bytesTotal(0), activity(std::move(searching)), active(canBeShown(wanted)) {}

void Progress::found() {
    ++filesDone;
    if (active) {
        draw();
    }
}

void Progress::advance(std::int64_t bytes) {
    bytesDone += bytes;
    if (active) {
        draw();
    }
}

void Progress::fileDone() {
    ++filesDone;
}

void Progress::hide() {
    std::lock_guard<std::mutex> const lock(mutex);
    if (visible) {
        std::fputs(eraseLine().c_str(), stderr);
        visible = false;
    }
}

void Progress::finish() {
    active = false;
    hide();
}

std::size_t Progress::files() const {
    return filesDone;
}

std::int64_t Progress::bytes() const {
    return bytesDone;
}

void Progress::draw() {
    std::unique_lock<std::mutex> const lock(mutex, std::try_to_lock);
    Clock::time_point const now = Clock::now();
    if (!lock || !active || now < nextDrawing) {
        return;
    }
    nextDrawing = now + std::chrono::milliseconds(100);
    visible = true;
    std::string text = line(std::chrono::duration<double>(now - start).count());
    text.resize(std::min(text.size(), usableColumns()));
    std::fputs((eraseLine() + text).c_str(), stderr);
}

std::string Progress::line(double seconds) const {
    if (!activity.empty()) {
        return activity + ", " + grouped(filesDone) + " found";
    }
    auto const done = static_cast<double>(bytesDone);
    auto const all = static_cast<double>(bytesTotal);
    double const perSecond = seconds > 0 ? done / seconds : 0;

    char text[160];
    std::snprintf(text, sizeof text, "%zu of %zu files, %.1f of %.1f MB, %.1f MB/s",
                  filesDone.load(), filesTotal, done / BYTES_PER_MEGABYTE, all / BYTES_PER_MEGABYTE,
                  perSecond / BYTES_PER_MEGABYTE);
    std::string result = text;
    if (seconds >= SECONDS_BEFORE_A_GUESS && perSecond > 0) {
        double const left = std::max(0.0, all - done) / perSecond;
        long const secondsLeft = left < 1e6 ? static_cast<long>(left) : 999999;
        std::snprintf(text, sizeof text, ", %ld:%02ld left", secondsLeft / 60, secondsLeft % 60);
        result += text;
    }
    return result;
}

}  // namespace manifest
