#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace manifest {

namespace {

constexpr double BYTES_PER_MEGABYTE = 1e6;
constexpr char ERASE_LINE[] = "\r\033[K";

}  // namespace

Progress::Progress(std::size_t totalFiles, std::int64_t totalBytes, bool wanted)
    : filesTotal(totalFiles),
      bytesTotal(totalBytes),
      active(wanted && isatty(STDERR_FILENO) != 0) {}

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
        std::fputs(ERASE_LINE, stderr);
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
    std::string const text = ERASE_LINE + line(std::chrono::duration<double>(now - start).count());
    std::fputs(text.c_str(), stderr);
}

std::string Progress::line(double seconds) const {
    auto const done = static_cast<double>(bytesDone);
    auto const all = static_cast<double>(bytesTotal);
    double const perSecond = seconds > 0 ? done / seconds : 0;
    double const left = perSecond > 0 ? std::max(0.0, all - done) / perSecond : 0;
    long const secondsLeft = left < 1e6 ? static_cast<long>(left) : 999999;

    char text[160];
    std::snprintf(text, sizeof text, "%zu of %zu files, %.1f of %.1f MB, %.1f MB/s, %ld:%02ld left",
                  filesDone.load(), filesTotal, done / BYTES_PER_MEGABYTE, all / BYTES_PER_MEGABYTE,
                  perSecond / BYTES_PER_MEGABYTE, secondsLeft / 60, secondsLeft % 60);
    return text;
}

}  // namespace manifest
