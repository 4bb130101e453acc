#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace manifest {

/// A line on the terminal that shows how far the work has come, cut to the terminal's width;
/// nothing where standard error is no terminal, or a dumb one (TERM). With NO_COLOR set it uses no
/// escape sequences. The time left is shown after two seconds, when it means something.
///
/// It has no thread of its own: the thread that reports an advance draws the line, ten times a
/// second at most. Thread-safe.
class Progress {
public:
    /// For so many files.
    Progress(std::size_t totalFiles, std::int64_t totalBytes, bool wanted);

    /// For the search for these files: "walking", or what else finds them.
    Progress(std::string searching, bool wanted);

    /// One more file was found.
    void found();

    void advance(std::int64_t bytes);
    void fileDone();

    /// Takes the line away, so that something else can be written; the next advance draws it again.
    void hide();
    /// Takes the line away for good.
    void finish();

    std::size_t files() const;
    std::int64_t bytes() const;

private:
    using Clock = std::chrono::steady_clock;

    void draw();
    std::string line(double seconds) const;

    std::size_t const filesTotal;
    std::int64_t const bytesTotal;
    std::string const activity;  // Empty once the files are known.
    Clock::time_point const start = Clock::now();
    std::atomic<std::size_t> filesDone{0};
    std::atomic<std::int64_t> bytesDone{0};

    std::mutex mutex;  // Guards the rest, and the line itself.
    Clock::time_point nextDrawing = start;
    bool visible = false;
    std::atomic<bool> active;
};

}  // namespace manifest
